#!/usr/bin/env bash
# Builds the Debian packages of orvex-session into out/packages/:
#
#   scripts/package.sh [amd64] [arm64]        (default: both)
#
# amd64: a release build in build-package (tests and benchmarks left out).
# arm64: a cross build in build-aarch64-package (scripts/cross-build.sh, which also
#        installs the cross tools and the arm64 sysroot), tests left out too.
# The daemon is installed to /usr/local/sbin, the tools to /usr/local/bin. Library
# dependencies come from dpkg-shlibdeps. Prints the paths of the packages it made.
#
# Environment: ORVEX_PACKAGE_DIR (output folder), ORVEX_JOBS (default 2), ORVEX_NICE
# (default 10), and the cross-build variables.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${ORVEX_PACKAGE_DIR:-$root/out/packages}
jobs=${ORVEX_JOBS:-2}
niceness=${ORVEX_NICE:-10}
native_build=$root/build-package
cross_build=$root/build-aarch64-package

say() { echo "package.sh: $*" >&2; }

archs=("$@")
[ ${#archs[@]} -eq 0 ] && archs=(amd64 arm64)

# Runs a command quietly; shows its output only when it fails.
quiet() {
  local log status=0
  log=$(mktemp /tmp/orvex-package.XXXXXX)
  "$@" >"$log" 2>&1 || status=$?
  [ $status = 0 ] || { cat "$log" >&2; say "failed ($status): $*"; }
  rm -f "$log"
  return $status
}

# cpack installs the build into a staging folder and runs dpkg-shlibdeps on it.
run_cpack() {
  local build=$1 log
  log=$(mktemp /tmp/orvex-cpack.XXXXXX)
  if ! nice -n "$niceness" cpack --config "$build/CPackConfig.cmake" -B "$out" >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    say "cpack failed in $build"
    return 1
  fi
  grep -o "$out/[^ ]*\.deb" "$log" || true
  rm -f "$log"
  rm -rf "$out/_CPack_Packages"
}

build_amd64() {
  bash "$root/scripts/setup.sh"
  quiet nice -n "$niceness" cmake -S "$root" -B "$native_build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DORVEX_TESTS=OFF -DORVEX_BENCH=OFF
  quiet nice -n "$niceness" cmake --build "$native_build" -j"$jobs"
  run_cpack "$native_build"
}

build_arm64() {
  ORVEX_AARCH64_BUILD=$cross_build ORVEX_CROSS_CMAKE_ARGS="-DORVEX_TESTS=OFF -DORVEX_BENCH=OFF" \
    quiet "$root/scripts/cross-build.sh"
  run_cpack "$cross_build"
}

mkdir -p "$out"
for arch in "${archs[@]}"; do
  case $arch in
    amd64) build_amd64 ;;
    arm64) build_arm64 ;;
    *) say "unknown architecture '$arch' (amd64 or arm64)"; exit 2 ;;
  esac
done
