# The device simulator, driven as a subprocess over loopback HTTP and HTTPS.
if(TARGET orvex-devsim)
  orvex_add_gtest(devsim_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/devsim_test.cpp
    LIBS orvex_test_support Poco::Net Poco::NetSSL Poco::Foundation)
  add_dependencies(devsim_test orvex-devsim)
endif()
