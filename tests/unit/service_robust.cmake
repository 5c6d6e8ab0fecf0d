# The service against callers that stall it (its own binary: Service is a singleton).
orvex_add_gtest(service_robust_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/service_robust_test.cpp
  LIBS orvex::service orvex_test_support
  LABELS tsan)
