# The daemon as the template unit runs it (--unit): its own sign-in from the settings of
# orvexctl enable and the password credential, its exit statuses, and orvexctl enable and
# disable with stand-ins for systemctl and systemd-creds (real binaries, tests/isolate.sh).
if(TARGET orvex-session AND TARGET orvexctl AND TARGET orvex-devsim)
  orvex_add_gtest(e2e_unit_instance
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/unit_instance_test.cpp ${CMAKE_CURRENT_LIST_DIR}/enable_test.cpp
    LIBS orvex_test_support orvex::client
    ISOLATED
    LABELS tsan)
  add_dependencies(e2e_unit_instance orvex-session orvexctl orvex-devsim)
  # Waits for the first keep-alive tick, 30 s after the start.
  orvex_add_gtest(e2e_unit_instance_tick
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/unit_instance_tick_test.cpp
    LIBS orvex_test_support orvex::client
    ISOLATED
    LABELS slow)
  add_dependencies(e2e_unit_instance_tick orvex-session orvex-devsim)
endif()
