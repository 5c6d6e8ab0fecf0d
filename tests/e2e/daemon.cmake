# The daemon process and the front end on a fleet of sessions: lock, log and status
# files, notifications, how sessions end, list/status/stop/forget/logs, fleet commands
# (real binaries, tests/isolate.sh).
if(TARGET orvex-session AND TARGET orvexctl AND TARGET orvex-devsim)
  orvex_add_gtest(e2e_daemon
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/lifecycle_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/fleet_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/ending_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/ctl_test.cpp
    LIBS orvex_test_support
    ISOLATED
    LABELS tsan)
  add_dependencies(e2e_daemon orvex-session orvexctl orvex-devsim)
endif()

# The keep-alive's first tick comes 30 s after start: slow.
if(TARGET orvex-session)
  orvex_add_gtest(e2e_daemon_slow
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/keepalive_test.cpp
    LIBS orvex_test_support
    ISOLATED
    LABELS slow)
  add_dependencies(e2e_daemon_slow orvex-session)
endif()
