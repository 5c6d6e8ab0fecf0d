# End-to-end tests: the real daemon, front end and bus client against the device
# simulator, each test in its own namespace (tests/isolate.sh).
if(TARGET orvex-session AND TARGET orvexctl AND TARGET orvex-devsim AND TARGET zs-call)
  set(ORVEX_E2E_LIBS orvex_test_support)

  orvex_add_gtest(e2e_session
    SOURCES
      ${CMAKE_CURRENT_LIST_DIR}/process_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/methods_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/errors_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/bus_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/call_order_test.cpp
    LIBS ${ORVEX_E2E_LIBS}
    ISOLATED
    LABELS tsan)
  add_dependencies(e2e_session orvex-session orvexctl orvex-devsim zs-call)
endif()
