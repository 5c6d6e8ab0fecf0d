# Debian package of the daemon and its tools: `cpack -G DEB` in a build folder (see
# scripts/package.sh). The daemon goes to /usr/local/sbin, where the front end launches
# it, the tools to /usr/local/bin (their install() rules say sbin and bin).
# A build configured with cmake/toolchain-aarch64.cmake gives the arm64 package; its
# library dependencies are read from the arm64 sysroot's shlibs/symbols information.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvex-session)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Orvex")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "per-device session daemon of the Orvex log center")
# CPack puts the summary first and indents these lines itself; an empty line becomes " .".
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "orvex-session keeps one authenticated HTTP(S) session with one remote storage
device, named by its MAC address, and serves the log center's programs over the
appliance's local service bus: sign-in, keep-alive, device identity and the
device's remote-syslog settings.

The package also holds the command-line tools that go with it (bus client,
device simulator, front end) in /usr/local/bin.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Orvex log center developers <logcenter@orvex.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr/local)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "${ORVEX_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu" "${ORVEX_AARCH64_SYSROOT}/lib/aarch64-linux-gnu")
  # dpkg-shlibdeps picks the library folders and objdump by the host architecture it
  # is told; cpack reads this file when it runs.
  set(_orvex_cpack_env "${CMAKE_BINARY_DIR}/CPackCrossEnv.cmake")
  file(WRITE "${_orvex_cpack_env}"
    "set(ENV{DEB_HOST_ARCH} arm64)\nset(ENV{DEB_HOST_MULTIARCH} aarch64-linux-gnu)\n"
    "set(ENV{DEB_HOST_GNU_TYPE} aarch64-linux-gnu)\nset(ENV{CC} aarch64-linux-gnu-gcc)\n")
  set(CPACK_PROJECT_CONFIG_FILE "${_orvex_cpack_env}")
endif()

include(CPack)
