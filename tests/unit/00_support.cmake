# The support code every test shares: child processes, the device simulator and the bus.
# The simulator's path reaches every user through ORVEX_DEVSIM.
add_library(orvex_test_support STATIC
  ${CMAKE_SOURCE_DIR}/tests/support/process.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/bus.cpp)
target_link_libraries(orvex_test_support PUBLIC orvex::zservice orvex::common PkgConfig::JANSSON GTest::gtest)
if(TARGET orvex-devsim)
  target_compile_definitions(orvex_test_support PUBLIC ORVEX_DEVSIM="$<TARGET_FILE:orvex-devsim>")
endif()
