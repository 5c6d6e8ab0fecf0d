# The method handlers and their help texts, without a daemon or a device.
if(TARGET orvex_methods)
  orvex_add_gtest(methods_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/methods_handlers_test.cpp
    LIBS orvex::methods)
endif()
