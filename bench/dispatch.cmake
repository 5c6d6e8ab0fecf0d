# Bus round trip of a no-op method through Service::dispatch and the bounded thread worker,
# beside the bare bus round trip, in one run.
add_executable(orvex_dispatch_bench ${CMAKE_CURRENT_SOURCE_DIR}/dispatch_bench.cpp)
target_link_libraries(orvex_dispatch_bench PRIVATE orvex::service Threads::Threads)
