# The bus against hostile neighbours (listeners of another uid, floods) and zs-call's exit
# codes. Runs zs-call as a program; the uid tests skip unless run as root.
orvex_add_gtest(zservice_security_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/zservice_security_test.cpp
  LIBS orvex::zservice orvex_test_support
  LABELS tsan)
target_compile_definitions(zservice_security_test PRIVATE ORVEX_VERSION="${PROJECT_VERSION}")
add_dependencies(zservice_security_test zs-call)
