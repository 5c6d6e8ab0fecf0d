# Corpus replays: each fuzz target's entry point, linked with fuzz/replay_main.cpp instead of
# libFuzzer, runs over every committed seed and saved finding in fuzz/corpus/<target>/, so
# the ordinary build guards what fuzzing found. Not GoogleTest, hence plain add_test.
include(${CMAKE_SOURCE_DIR}/fuzz/targets.cmake)
foreach(target ${ORVEX_FUZZ_TARGETS})
  orvex_fuzz_target_ready(${target} ready)
  if(NOT ready)
    continue()
  endif()
  add_executable(fuzz_replay_${target}
    ${ORVEX_FUZZ_SOURCE_DIR}/${target}.cpp
    ${ORVEX_FUZZ_SOURCE_DIR}/replay_main.cpp)
  target_link_libraries(fuzz_replay_${target} PRIVATE ${ORVEX_FUZZ_LIBS_${target}} Threads::Threads)
  add_test(NAME fuzz_replay.${target}
    COMMAND fuzz_replay_${target} ${ORVEX_FUZZ_SOURCE_DIR}/corpus/${target})
  set_tests_properties(fuzz_replay.${target} PROPERTIES TIMEOUT 300 LABELS fuzz)
endforeach()
