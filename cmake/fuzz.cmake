# Fuzz targets need clang's libFuzzer.
option(ORVEX_FUZZ "Build the libFuzzer targets (clang only)" OFF)
if(ORVEX_FUZZ AND NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "ORVEX_FUZZ needs clang: configure with CXX=clang++ CC=clang (preset 'fuzz')")
endif()
