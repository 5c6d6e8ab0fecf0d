# Option records.
orvex_add_gtest(option_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/option_records_test.cpp
  LIBS orvex::option orvex_test_support)

# The port probe reads the kernel's socket tables and looks at real listening sockets, so
# its tests run ISOLATED: tests/isolate.sh gives them a private network namespace, so the
# ports they hold (1514 included) meet nothing else on the machine and parallel runs do
# not see each other. option_listener is the "rsyslogd" stand-in: a process is named by
# its executable's file name, so the test copies this compiled listener under that name
# (a script would show as its interpreter).
add_executable(option_listener ${CMAKE_CURRENT_LIST_DIR}/option_listener.cpp)
orvex_add_gtest(option_probe_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/option_probe_test.cpp
  LIBS orvex::option orvex_test_support
  ISOLATED)
add_dependencies(option_probe_test option_listener)
target_compile_definitions(option_probe_test PRIVATE
  ORVEX_OPTION_LISTENER="$<TARGET_FILE:option_listener>")
