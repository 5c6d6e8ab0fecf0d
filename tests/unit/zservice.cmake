orvex_add_gtest(zservice_test
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/zservice_server_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/zservice_client_test.cpp
          ${CMAKE_CURRENT_LIST_DIR}/zservice_tool_test.cpp
  LIBS orvex::zservice orvex_test_support
  LABELS tsan)
add_dependencies(zservice_test zs-call)
