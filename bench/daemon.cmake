# orvex_daemon_bench: the daemon as a whole (bus, device calls, memory, start-up) beside
# bare baselines measured in the same run. bench/run.sh builds and runs it under
# tests/isolate.sh. The D-Bus baseline needs libsystemd (sd-bus); without it the part is
# skipped with a note.
if(TARGET orvex-session AND TARGET orvex-devsim)
  add_library(orvex_bench_support STATIC ${CMAKE_CURRENT_LIST_DIR}/daemon_support.cpp)
  target_link_libraries(orvex_bench_support PUBLIC Threads::Threads)

  add_executable(orvex_bench_peer ${CMAKE_CURRENT_LIST_DIR}/daemon_peer.cpp)
  target_link_libraries(orvex_bench_peer PRIVATE orvex_bench_support orvex::zservice Poco::NetSSL Poco::Net Poco::Foundation)

  pkg_check_modules(LIBSYSTEMD QUIET IMPORTED_TARGET libsystemd)
  add_executable(orvex_daemon_bench ${CMAKE_CURRENT_LIST_DIR}/daemon_bench.cpp
    ${CMAKE_CURRENT_LIST_DIR}/daemon_fixture.cpp ${CMAKE_CURRENT_LIST_DIR}/daemon_dbus.cpp)
  target_link_libraries(orvex_daemon_bench PRIVATE orvex_bench_support orvex::zservice orvex::common
    Poco::NetSSL Poco::Net Poco::Foundation OpenSSL::SSL PkgConfig::JANSSON)
  set(ORVEX_BENCH_DBUS_PEER "")
  if(LIBSYSTEMD_FOUND)
    add_executable(orvex_bench_dbus_peer ${CMAKE_CURRENT_LIST_DIR}/daemon_dbus_peer.cpp)
    target_link_libraries(orvex_bench_dbus_peer PRIVATE PkgConfig::LIBSYSTEMD)
    target_link_libraries(orvex_daemon_bench PRIVATE PkgConfig::LIBSYSTEMD)
    target_compile_definitions(orvex_daemon_bench PRIVATE ORVEX_BENCH_DBUS)
    add_dependencies(orvex_daemon_bench orvex_bench_dbus_peer)
    set(ORVEX_BENCH_DBUS_PEER "$<TARGET_FILE:orvex_bench_dbus_peer>")
  else()
    message(STATUS "libsystemd not found: orvex_daemon_bench skips its D-Bus baseline")
  endif()
  add_dependencies(orvex_daemon_bench orvex-session orvex-devsim orvex_bench_peer)
  target_compile_definitions(orvex_daemon_bench PRIVATE ORVEX_BENCH_PROGRAMS
    ORVEX_BENCH_DAEMON="$<TARGET_FILE:orvex-session>" ORVEX_BENCH_DEVSIM="$<TARGET_FILE:orvex-devsim>"
    ORVEX_BENCH_PEER="$<TARGET_FILE:orvex_bench_peer>" ORVEX_BENCH_DBUS_PEER="${ORVEX_BENCH_DBUS_PEER}")

  # Checks of the measuring pieces (statistics, memory figures, wire format, child
  # processes, goals) against the real bus library; bench/run.sh runs them first.
  find_package(GTest QUIET)
  if(GTest_FOUND)
    add_executable(orvex_daemon_bench_test ${CMAKE_CURRENT_LIST_DIR}/daemon_bench_test.cpp
      ${CMAKE_CURRENT_LIST_DIR}/daemon_fixture_test.cpp ${CMAKE_CURRENT_LIST_DIR}/daemon_fixture.cpp)
    target_link_libraries(orvex_daemon_bench_test PRIVATE orvex_bench_support orvex::zservice orvex::common
      Poco::NetSSL Poco::Net Poco::Foundation OpenSSL::SSL PkgConfig::JANSSON GTest::gtest GTest::gtest_main)
    target_compile_definitions(orvex_daemon_bench_test PRIVATE
      ORVEX_BENCH_DAEMON="$<TARGET_FILE:orvex-session>" ORVEX_BENCH_DEVSIM="$<TARGET_FILE:orvex-devsim>")
    add_dependencies(orvex_daemon_bench_test orvex-session orvex-devsim)
    if(ORVEX_TESTS)
      # Also part of the test suite, in the private namespace the daemons need.
      include(GoogleTest)
      set_property(TARGET orvex_daemon_bench_test PROPERTY CROSSCOMPILING_EMULATOR
        ${CMAKE_SOURCE_DIR}/tests/isolate.sh)
      gtest_discover_tests(orvex_daemon_bench_test DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
        TEST_PREFIX "bench_test." PROPERTIES TIMEOUT 300)
    endif()
  endif()
endif()
