# The service framework's tests. Service is a process-wide singleton, so each group that
# registers endpoints has its own binary.
# The queue, the workers and the dispatch run threads: ThreadSanitizer runs them again.
set(labels_ticktock tsan)
set(labels_dispatch tsan)
set(labels_worker tsan)
foreach(group ticktock reply dispatch worker)
  orvex_add_gtest(service_${group}_test
    SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/unit/service_${group}_test.cpp
    LIBS orvex::service orvex_test_support
    LABELS ${labels_${group}})
endforeach()
