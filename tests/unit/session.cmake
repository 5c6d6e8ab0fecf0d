# Device session tests. They drive the real device simulator (orvex-devsim) as a child
# process on a loopback ephemeral port and read its request log.
set(ORVEX_SESSION_TEST_LIBS orvex::session orvex::option orvex_test_support Poco::Foundation Poco::Net)

function(orvex_session_test name source)
  orvex_add_gtest(${name} SOURCES ${CMAKE_CURRENT_LIST_DIR}/${source} LIBS ${ORVEX_SESSION_TEST_LIBS} ${ARGN})
  add_dependencies(${name} orvex-devsim)
endfunction()

orvex_session_test(session_signin_test session_signin_test.cpp)
orvex_session_test(session_keepalive_test session_keepalive_test.cpp LABELS tsan)
orvex_session_test(session_rsyslog_test session_rsyslog_test.cpp)
# Writes the private /usr/local/sbin and serves the real per-device bus address.
orvex_session_test(session_bus_test session_bus_test.cpp ISOLATED LABELS tsan)
add_dependencies(session_bus_test orvex-session)
