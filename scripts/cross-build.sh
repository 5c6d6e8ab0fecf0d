#!/usr/bin/env bash
# Cross-builds the whole tree for 64-bit Arm (aarch64) into build-aarch64.
#
#   scripts/cross-build.sh [--setup-only] [cmake --build arguments, e.g. --target orvex_common]
#
# First makes sure of, installing what is missing (idempotent, quiet when present):
#  - the host tools: Debian's aarch64 cross compiler, qemu-user (+ binfmt entries);
#  - the arm64 package lists (dpkg --add-architecture arm64, apt-get update);
#  - build-aarch64-sysroot: Debian's arm64 packages of POCO, jansson, the MariaDB client, libsystemd,
#    OpenSSL and GoogleTest with their dependencies, unpacked with dpkg-deb. They are not
#    installed as :arm64 packages because libmariadb-dev is not Multi-Arch (installing
#    libmariadb-dev:arm64 or libpoco-dev:arm64 would remove the amd64 -dev packages the
#    native build uses) and because the arm64 runtime libraries must carry the same
#    version as the installed amd64 ones (it would upgrade amd64 libexpat1).
# The sysroot's DEBIAN/shlibs and DEBIAN/symbols gather the packages' own dependency
# information, so dpkg-shlibdeps can name the dependencies of the arm64 package.
#
# Environment: ORVEX_AARCH64_BUILD (build folder), ORVEX_AARCH64_SYSROOT (sysroot folder),
# ORVEX_JOBS (default 2), ORVEX_NICE (default 10), ORVEX_CROSS_CMAKE_ARGS (extra
# configure arguments; default "-DORVEX_BENCH=OFF -DORVEX_TESTS=ON").
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVEX_AARCH64_BUILD:-$root/build-aarch64}
sysroot=${ORVEX_AARCH64_SYSROOT:-$root/build-aarch64-sysroot}
jobs=${ORVEX_JOBS:-2}
niceness=${ORVEX_NICE:-10}
read -r -a cmake_args <<< "${ORVEX_CROSS_CMAKE_ARGS:--DORVEX_BENCH=OFF -DORVEX_TESTS=ON}"

host_packages=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user qemu-user-binfmt
  dpkg-dev cmake pkg-config file)
arm_packages=(libpoco-dev libjansson-dev libmariadb-dev libssl-dev libsystemd-dev libgtest-dev libgmock-dev
  libstdc++6 libgcc-s1)
# The C library's headers come with the cross compiler; a second copy would shadow them.
skip_debs='^(libc6-dev|linux-libc-dev|libcrypt-dev|libnsl-dev|libtirpc-dev|rpcsvc-proto|libc-dev-bin)_'

say() { echo "cross-build.sh: $*" >&2; }
die() { say "$*"; exit 1; }

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }

need_root() {
  [ "$(id -u)" = 0 ] || die "$1; run as root"
}

ensure_host_tools() {
  local missing=() p
  for p in "${host_packages[@]}"; do installed "$p" || missing+=("$p"); done
  [ ${#missing[@]} -eq 0 ] && return
  need_root "missing packages (${missing[*]})"
  say "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

ensure_arm64_lists() {
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    need_root "the arm64 architecture is not enabled"
    dpkg --add-architecture arm64
  fi
  apt-cache show libc6:arm64 >/dev/null 2>&1 && return
  need_root "the arm64 package lists are missing"
  apt-get update -qq
}

# Downloads the packages and their dependencies as a fresh arm64 system would need them,
# with an empty package database so nothing installed on this machine counts.
download_arm_debs() {
  local dir=$1
  mkdir -p "$dir/debs/partial"
  : > "$dir/status"
  apt-get -qq -y --download-only \
    -o Dir::State::status="$dir/status" -o Dir::Cache::archives="$dir/debs" \
    -o Dir::Cache::pkgcache= -o Dir::Cache::srcpkgcache= \
    -o APT::Architecture=arm64 -o APT::Architectures::=arm64 \
    -o APT::Install-Recommends=0 -o Debug::NoLocking=1 -o APT::Sandbox::User=root \
    install "${arm_packages[@]}" >/dev/null
}

unpack_arm_debs() {
  local dir=$1 dest=$2 deb name
  mkdir -p "$dest/DEBIAN"
  : > "$dest/DEBIAN/shlibs"
  : > "$dest/DEBIAN/symbols"
  for deb in "$dir"/debs/*.deb; do
    name=$(basename "$deb")
    [[ $name =~ $skip_debs ]] && continue
    dpkg-deb -x "$deb" "$dest"
    rm -rf "$dir/control"
    dpkg-deb -e "$deb" "$dir/control"
    [ -f "$dir/control/shlibs" ] && cat "$dir/control/shlibs" >> "$dest/DEBIAN/shlibs"
    [ -f "$dir/control/symbols" ] && cat "$dir/control/symbols" >> "$dest/DEBIAN/symbols"
  done
  return 0
}

# Absolute links (e.g. /lib/ld-linux-aarch64.so.1) must point into the sysroot, both for
# the linker and for qemu's -L root.
relocate_links() {
  local link target
  while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -sfn "$sysroot$target" "$link"
  done < <(find "$sysroot" -type l -lname '/*' -print0)
}

ensure_sysroot() {
  local want="$sysroot: ${arm_packages[*]}"
  if [ -f "$sysroot/.orvex-packages" ] && [ "$(cat "$sysroot/.orvex-packages")" = "$want" ]; then
    return
  fi
  say "unpacking Debian arm64 packages into $sysroot"
  tmp=$(mktemp -d /tmp/orvex-arm64.XXXXXX)
  trap 'rm -rf "$tmp"' EXIT
  download_arm_debs "$tmp"
  rm -rf "$sysroot.new"
  unpack_arm_debs "$tmp" "$sysroot.new"
  rm -rf "$sysroot"
  mv "$sysroot.new" "$sysroot"
  relocate_links
  echo "$want" > "$sysroot/.orvex-packages"
}

check_binaries() {
  local f bad=0 count=0
  while IFS= read -r -d '' f; do
    file -b "$f" | grep -q '^ELF' || continue
    count=$((count + 1))
    file -b "$f" | grep -q 'ARM aarch64' || { say "not an aarch64 binary: $f"; bad=1; }
  done < <(find "$build" -path "$build/CMakeFiles" -prune -o -type f -perm -u+x -print0)
  say "$count aarch64 executables in $build"
  return $bad
}

setup_only=0
if [ "${1:-}" = --setup-only ]; then setup_only=1; shift; fi

ensure_arm64_lists
ensure_host_tools
ensure_sysroot
[ $setup_only = 1 ] && exit 0

nice -n "$niceness" cmake -S "$root" -B "$build" \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64.cmake" \
  -DORVEX_AARCH64_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  "${cmake_args[@]}" >/dev/null
nice -n "$niceness" cmake --build "$build" -j"$jobs" "$@"
check_binaries
