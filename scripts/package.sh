#!/usr/bin/env bash
# Builds the Debian packages with debhelper (debian/) into out/packages/:
#   orvex-session_<version>_<arch>.deb   daemon, unit, tmpfiles entry, zs-call, orvexctl
#   orvex-devsim_<version>_<arch>.deb    the device simulator
#
#   scripts/package.sh [amd64] [arm64]        (default: both)
#
# The tree is copied to build-deb/<arch>/src (no build folders, no .git) and built there
# with dpkg-buildpackage -b, so nothing is written into the source tree. The compiled
# objects (src/obj-*) are kept between runs. arm64 is cross-built with the project's
# toolchain file and the arm64 sysroot of scripts/cross-build.sh (which installs the
# cross tools and the sysroot when missing).
#
# Environment: ORVEX_PACKAGE_DIR (output folder), ORVEX_JOBS (default 2), ORVEX_NICE
# (default 10), ORVEX_AARCH64_SYSROOT.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${ORVEX_PACKAGE_DIR:-$root/out/packages}
jobs=${ORVEX_JOBS:-2}
niceness=${ORVEX_NICE:-10}
export ORVEX_AARCH64_SYSROOT=${ORVEX_AARCH64_SYSROOT:-$root/build-aarch64-sysroot}

say() { echo "package.sh: $*" >&2; }

archs=("$@")
[ ${#archs[@]} -eq 0 ] && archs=(amd64 arm64)
for arch in "${archs[@]}"; do
  case $arch in
    amd64|arm64) ;;
    *) say "unknown architecture '$arch' (amd64 or arm64)"; exit 2 ;;
  esac
done

# A fresh copy of the sources; only the compiled objects survive from the last run.
stage_sources() {
  local src=$1
  mkdir -p "$src"
  find "$src" -mindepth 1 -maxdepth 1 ! -name 'obj-*' -exec rm -rf {} +
  tar -C "$root" --exclude='./build*' --exclude=./out --exclude=./.git -cf - . | tar -C "$src" -xf -
}

build() {
  local arch=$1 dir=$root/build-deb/$1 log status=0
  local flags=(-b -us -uc -nc)
  stage_sources "$dir/src"
  rm -f "$dir"/*.deb "$dir"/*.ddeb "$dir"/*.changes "$dir"/*.buildinfo
  if [ "$arch" != "$(dpkg --print-architecture)" ]; then
    bash "$root/scripts/cross-build.sh" --setup-only
    # The arm64 libraries are in the sysroot, not installed: skip the build-dependency check.
    flags+=(-a"$arch" -d)
  fi
  log=$dir/build.log
  say "building the $arch packages (log: $log)"
  (cd "$dir/src" && DEB_BUILD_OPTIONS="parallel=$jobs noautodbgsym nocheck" \
    CMAKE_C_COMPILER_LAUNCHER=$(command -v ccache || true) \
    CMAKE_CXX_COMPILER_LAUNCHER=$(command -v ccache || true) \
    nice -n "$niceness" dpkg-buildpackage "${flags[@]}") >"$log" 2>&1 || status=$?
  if [ $status != 0 ]; then
    tail -n 40 "$log" >&2
    say "dpkg-buildpackage failed for $arch ($status)"
    return 1
  fi
  mkdir -p "$out"
  rm -f "$out"/*_"$arch".deb
  cp "$dir"/*_"$arch".deb "$out"/
  ls "$out"/*_"$arch".deb
}

for arch in "${archs[@]}"; do
  build "$arch"
done
