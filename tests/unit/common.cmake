orvex_add_gtest(common_test
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/common_test.cpp
  LIBS orvex::common orvex_test_support)
