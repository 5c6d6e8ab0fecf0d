# Load and fault tests: the real daemon under many callers, idle and vanishing callers,
# a device that hangs or talks nonsense, a killed daemon, a stranger on the bus. Each
# test prints its figures ("[figures] ..." lines). Built on the end-to-end support code.
if(TARGET orvex-session AND TARGET orvex-devsim AND TARGET zs-call)
  set(ORVEX_LOAD_DEFINITIONS
    ORVEX_E2E_DAEMON="$<TARGET_FILE:orvex-session>"
    ORVEX_E2E_ZSCALL="$<TARGET_FILE:zs-call>"
    # The front end is not used here; the support code only names it.
    ORVEX_E2E_CTL="")
  set(ORVEX_LOAD_SUPPORT
    ${CMAKE_SOURCE_DIR}/tests/e2e/support.cpp
    ${CMAKE_CURRENT_LIST_DIR}/load_support.cpp)
  set(ORVEX_LOAD_LIBS orvex_test_support)

  orvex_add_gtest(load_faults
    SOURCES ${ORVEX_LOAD_SUPPORT}
      ${CMAKE_CURRENT_LIST_DIR}/throughput_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/faults_test.cpp
    LIBS ${ORVEX_LOAD_LIBS}
    ISOLATED
    LABELS load)
  orvex_add_gtest(load_slow
    SOURCES ${ORVEX_LOAD_SUPPORT}
      ${CMAKE_CURRENT_LIST_DIR}/idle_callers_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/device_timeout_test.cpp
    LIBS ${ORVEX_LOAD_LIBS}
    ISOLATED
    LABELS load slow)
  foreach(test load_faults load_slow)
    target_compile_definitions(${test} PRIVATE ${ORVEX_LOAD_DEFINITIONS})
    add_dependencies(${test} orvex-session orvex-devsim zs-call)
  endforeach()
endif()
