# libFuzzer executables fuzz_<target> (only configured with ORVEX_FUZZ, i.e. clang).
include(${CMAKE_CURRENT_LIST_DIR}/targets.cmake)

# The libraries under test need edge coverage too, not just the harnesses; this folder is
# configured after theirs, so their targets can take the flag from here.
foreach(lib orvex_common orvex_zservice orvex_service orvex_option orvex_session)
  if(TARGET ${lib})
    target_compile_options(${lib} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
endforeach()

set(ORVEX_FUZZ_EXECUTABLES "")
foreach(target ${ORVEX_FUZZ_TARGETS})
  orvex_fuzz_target_ready(${target} ready)
  if(NOT ready)
    message(STATUS "fuzz_${target}: a library it needs is not built here; skipped")
    continue()
  endif()
  add_executable(fuzz_${target} ${CMAKE_CURRENT_LIST_DIR}/${target}.cpp)
  target_compile_options(fuzz_${target} PRIVATE -fsanitize=fuzzer)
  target_link_options(fuzz_${target} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(fuzz_${target} PRIVATE ${ORVEX_FUZZ_LIBS_${target}} Threads::Threads)
  list(APPEND ORVEX_FUZZ_EXECUTABLES fuzz_${target})
endforeach()
add_custom_target(fuzz_all DEPENDS ${ORVEX_FUZZ_EXECUTABLES})
