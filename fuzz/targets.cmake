# The fuzz targets and what each links (the ones on the bus use the shared test harness). Read both by fuzz/libfuzzer.cmake (libFuzzer
# executables, fuzz preset) and by tests/unit/fuzz_replay.cmake (corpus replays in every
# build), so it only sets variables and may be included more than once.
set(ORVEX_FUZZ_TARGETS
  option_records
  service_lookup
  bus_call_frame
  bus_reply_frame
  session_signin
  session_merge)
set(ORVEX_FUZZ_LIBS_option_records orvex::option)
set(ORVEX_FUZZ_LIBS_service_lookup orvex::service)
set(ORVEX_FUZZ_LIBS_bus_call_frame orvex::zservice orvex_test_support)
set(ORVEX_FUZZ_LIBS_bus_reply_frame orvex::zservice orvex_test_support)
set(ORVEX_FUZZ_LIBS_session_signin orvex::session orvex::option orvex_test_support)
set(ORVEX_FUZZ_LIBS_session_merge orvex::session orvex::option orvex::zservice orvex_test_support)
set(ORVEX_FUZZ_SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR})

# True in <out> when every library of <target> exists in this configuration (a folder
# still being written may not define its library yet).
function(orvex_fuzz_target_ready target out)
  set(ready TRUE)
  foreach(lib ${ORVEX_FUZZ_LIBS_${target}})
    # The shared test harness is defined with the tests, after this folder.
    if(lib STREQUAL "orvex_test_support" AND ORVEX_TESTS)
      continue()
    endif()
    if(NOT TARGET ${lib})
      set(ready FALSE)
    endif()
  endforeach()
  set(${out} ${ready} PARENT_SCOPE)
endfunction()
