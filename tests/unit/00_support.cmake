# The one harness that tests, benchmarks and fuzz targets share: child processes, the
# device simulator, the daemon and the bus. Programs reach it through their build paths.
add_library(orvex_test_support STATIC
  ${CMAKE_SOURCE_DIR}/tests/support/process.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/bus.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/devsim.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/daemon.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/hostile.cpp)
target_link_libraries(orvex_test_support PUBLIC orvex::zservice orvex::common PkgConfig::JANSSON GTest::gtest)
if(TARGET orvex-devsim)
  target_compile_definitions(orvex_test_support PUBLIC ORVEX_DEVSIM="$<TARGET_FILE:orvex-devsim>")
endif()
foreach(program orvex-session:ORVEX_DAEMON orvexctl:ORVEX_CTL zs-call:ORVEX_ZSCALL)
  string(REPLACE ":" ";" pair ${program})
  list(GET pair 0 target)
  list(GET pair 1 macro)
  if(TARGET ${target})
    target_compile_definitions(orvex_test_support PRIVATE ${macro}="$<TARGET_FILE:${target}>")
  endif()
endforeach()
