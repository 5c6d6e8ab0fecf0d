# The client side's own files. The device settings live in /etc/orvex: those tests run
# under tests/isolate.sh, where /etc is a throw-away overlay.
orvex_add_gtest(client_device_config_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/client_device_config_test.cpp
  LIBS orvex::client orvex_test_support
  ISOLATED)
# The files that name a fleet for the front end, read without any daemon.
orvex_add_gtest(client_files_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/client_files_test.cpp
  LIBS orvex::client orvex_test_support)
