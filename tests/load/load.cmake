# Load and fault tests: the real daemon under many callers, vanishing callers, a device
# that talks nonsense, a killed daemon, a stranger on the bus.
if(TARGET orvex-session AND TARGET orvex-devsim AND TARGET zs-call)
  orvex_add_gtest(load_test
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/load_test.cpp
    LIBS orvex_test_support
    ISOLATED
    LABELS load tsan)
  add_dependencies(load_test orvex-session orvex-devsim zs-call)
endif()
