add_executable(bus_bench ${CMAKE_CURRENT_LIST_DIR}/bus_bench.cpp)
target_link_libraries(bus_bench PRIVATE orvex::zservice Threads::Threads)
