# Cross-compiles for 64-bit Arm Linux (the appliance) with Debian's aarch64-linux-gnu
# compilers. The compiler brings its own C library (/usr/aarch64-linux-gnu); the
# third-party libraries (POCO, jansson, MariaDB client, OpenSSL, GoogleTest) come from
# Debian's arm64 packages unpacked into a sysroot folder by scripts/cross-build.sh,
# because libmariadb-dev (and through it libpoco-dev) cannot be installed for two
# architectures at once.
#
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-aarch64.cmake
#
# ORVEX_AARCH64_SYSROOT (cache or environment) names that folder; the default is
# build-aarch64-sysroot beside this tree's top-level CMakeLists.txt.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

if(NOT ORVEX_AARCH64_SYSROOT)
  if(DEFINED ENV{ORVEX_AARCH64_SYSROOT})
    set(ORVEX_AARCH64_SYSROOT "$ENV{ORVEX_AARCH64_SYSROOT}")
  else()
    get_filename_component(ORVEX_AARCH64_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-aarch64-sysroot" ABSOLUTE)
  endif()
endif()
set(ORVEX_AARCH64_SYSROOT "${ORVEX_AARCH64_SYSROOT}" CACHE PATH "Unpacked Debian arm64 libraries")
# try_compile projects re-read this file without the cache: hand the folder on.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVEX_AARCH64_SYSROOT)
if(NOT EXISTS "${ORVEX_AARCH64_SYSROOT}/usr/lib/aarch64-linux-gnu")
  message(FATAL_ERROR "No arm64 sysroot at ${ORVEX_AARCH64_SYSROOT}: run scripts/cross-build.sh --setup-only")
endif()
set(_sr "${ORVEX_AARCH64_SYSROOT}")

set(CMAKE_FIND_ROOT_PATH "${_sr}" /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Not a --sysroot: the compiler keeps its own libc and C++ headers. The arch-specific
# headers (openssl/configuration.h) live in the multiarch include folder, and the
# libraries' own dependencies (pcre, zlib, ...) must be found when linking.
set(CMAKE_C_FLAGS_INIT "-isystem ${_sr}/usr/include/aarch64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-isystem ${_sr}/usr/include/aarch64-linux-gnu")
set(_rpath_link "-Wl,-rpath-link,${_sr}/usr/lib/aarch64-linux-gnu:${_sr}/lib/aarch64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_rpath_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_rpath_link}")

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_sr}")
set(ENV{PKG_CONFIG_LIBDIR} "${_sr}/usr/lib/aarch64-linux-gnu/pkgconfig:${_sr}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# ctest (and gtest discovery) run the test programs under qemu with the sysroot as the
# root for the Arm dynamic loader and libraries. Programs those tests start themselves
# need the kernel's binfmt handler for aarch64 and QEMU_LD_PREFIX (scripts/cross-test.sh).
if(EXISTS /usr/bin/qemu-aarch64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "/usr/bin/qemu-aarch64;-L;${_sr}")
endif()
unset(_sr)
unset(_rpath_link)
