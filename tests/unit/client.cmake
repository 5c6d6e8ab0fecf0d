# The files that name a fleet for the front end, read without any daemon.
orvex_add_gtest(client_files_test
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/client_files_test.cpp
  LIBS orvex::client orvex_test_support)
