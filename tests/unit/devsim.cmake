# The device simulator, driven as a subprocess over loopback HTTP and HTTPS.
if(TARGET orvex-devsim)
  orvex_add_gtest(devsim_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/devsim_test.cpp
    LIBS Poco::Net Poco::NetSSL Poco::Foundation PkgConfig::JANSSON)
  target_compile_definitions(devsim_test PRIVATE ORVEX_DEVSIM_PATH="$<TARGET_FILE:orvex-devsim>")
  add_dependencies(devsim_test orvex-devsim)
endif()
