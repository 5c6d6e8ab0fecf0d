# End-to-end tests: the real daemon, front end and bus client against the device
# simulator, each test in its own namespace (tests/isolate.sh).
if(TARGET orvex-session AND TARGET orvexctl AND TARGET orvex-devsim AND TARGET zs-call)
  set(ORVEX_E2E_DEFINITIONS
    ORVEX_E2E_DAEMON="$<TARGET_FILE:orvex-session>"
    ORVEX_E2E_CTL="$<TARGET_FILE:orvexctl>"
    ORVEX_E2E_ZSCALL="$<TARGET_FILE:zs-call>")
  set(ORVEX_E2E_LIBS orvex_test_support)

  orvex_add_gtest(e2e_session
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/support.cpp
      ${CMAKE_CURRENT_LIST_DIR}/process_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/methods_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/errors_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/bus_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/orvexctl_test.cpp
    LIBS ${ORVEX_E2E_LIBS}
    ISOLATED)
  orvex_add_gtest(e2e_keepalive
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/support.cpp
      ${CMAKE_CURRENT_LIST_DIR}/keepalive_test.cpp
    LIBS ${ORVEX_E2E_LIBS}
    ISOLATED
    LABELS slow)
  foreach(test e2e_session e2e_keepalive)
    target_compile_definitions(${test} PRIVATE ${ORVEX_E2E_DEFINITIONS})
    add_dependencies(${test} orvex-session orvexctl orvex-devsim zs-call)
  endforeach()
endif()
