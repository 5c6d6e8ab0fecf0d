# session_bench: one device call through Session::request() beside bare POCO clients, over
# HTTP and HTTPS, against the device simulator.
if(TARGET orvex-devsim)
  add_executable(session_bench ${CMAKE_CURRENT_LIST_DIR}/session_bench.cpp)
  target_link_libraries(session_bench PRIVATE orvex::session orvex::option Poco::Net Poco::NetSSL Poco::Foundation
    PkgConfig::JANSSON)
  add_dependencies(session_bench orvex-devsim)
  target_compile_definitions(session_bench PRIVATE ORVEX_DEVSIM="$<TARGET_FILE:orvex-devsim>")
endif()
