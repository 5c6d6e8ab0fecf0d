#!/usr/bin/env bash
# Tests the Debian packages in out/packages (scripts/package.sh makes them).
#
#   scripts/package-test.sh [amd64] [arm64]        (default: both)
#
# Both: dpkg-deb checks of the name, architecture, contents (only /usr/local/sbin and
# /usr/local/bin), the architecture of every program, and that every library a program
# needs is one of the package's dependencies.
# amd64: INSTALLS the package on this machine (dpkg -i, into the real /usr/local), runs
#   the installed programs (and `scripts/demo.sh --installed` when the demo has that
#   mode: it plays both device families against the installed programs), removes it
#   (dpkg -r) and checks that none of its files is left. Needs root; refuses to run over
#   files of the same names that the package does not own. Never run it from ctest.
# arm64: runs the unpacked programs under qemu-aarch64 with the arm64 sysroot.
# Ends with "N passed, N failed"; the exit status is 1 when a check failed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${ORVEX_PACKAGE_DIR:-$root/out/packages}
sysroot=${ORVEX_AARCH64_SYSROOT:-$root/build-aarch64-sysroot}
passed=0
failed=0
work=$(mktemp -d /tmp/orvex-package-test.XXXXXX)
cleanup_package=0
# dpkg -r also removes the package's folders once they are empty, and no Debian package
# owns /usr/local/sbin or /usr/local/bin: put back the ones that were there before.
local_dirs=()
for d in /usr/local/sbin /usr/local/bin; do
  [ -d "$d" ] && local_dirs+=("$d:$(stat -c '%a:%U:%G' "$d")")
done
restore_local_dirs() {
  local entry d mode owner group
  for entry in "${local_dirs[@]}"; do
    IFS=: read -r d mode owner group <<< "$entry"
    [ -d "$d" ] && continue
    mkdir -p "$d" && chmod "$mode" "$d" && chown "$owner:$group" "$d"
  done
}
cleanup() {
  [ $cleanup_package = 1 ] && dpkg -r orvex-session >/dev/null 2>&1
  restore_local_dirs
  rm -rf "$work"
}
trap cleanup EXIT

say() { echo "package-test.sh: $*" >&2; }
pass() { passed=$((passed + 1)); echo "PASS: $1"; }
fail() { failed=$((failed + 1)); echo "FAIL: $1${2:+ ($2)}"; }
# check DESCRIPTION COMMAND...: one named check.
check() {
  local what=$1
  shift
  if "$@"; then pass "$what"; else fail "$what"; fi
}

# Runs a command without its output, unless it fails.
silently() { "$@" >"$work/cmd.log" 2>&1 || { sed 's/^/  /' "$work/cmd.log"; return 1; }; }

latest_deb() { ls -t "$out"/orvex-session_*_"$1".deb 2>/dev/null | head -1; }

field_is() { [ "$(dpkg-deb -f "$1" "$2")" = "$3" ]; }
field_set() { [ -n "$(dpkg-deb -f "$1" "$2")" ]; }

# Non-folder paths in the package, without the leading ".".
package_files() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ { sub(/^\./, "", $6); print $6 }'; }

only_under_local_bins() {
  ! package_files "$1" | grep -Ev '^/usr/local/s?bin/[^/]+$'
}

has_file() { package_files "$1" | grep -qx "$2"; }

elf_files() { find "$1" -type f -exec sh -c 'file -b "$1" | grep -q ^ELF' _ {} \; -print; }

all_elf_are() {
  local dir=$1 arch=$2 f n=0
  for f in $(elf_files "$dir"); do
    n=$((n + 1))
    file -b "$f" | grep -q "$arch" || { echo "  not $arch: $f"; return 1; }
  done
  [ $n -gt 0 ]
}

# The package that provides SONAME: for arm64 from the sysroot's shlibs lines
# ("name version dependency"), for amd64 from the package database.
soname_package() {
  local soname=$1 shlibs=$2 name ver
  if [ "$shlibs" = host ]; then
    { dpkg -S "/usr/lib/x86_64-linux-gnu/$soname" || dpkg -S "/lib/x86_64-linux-gnu/$soname"; } 2>/dev/null |
      head -1 | cut -d: -f1
    return
  fi
  if [[ $soname =~ ^(.+)\.so\.(.+)$ ]]; then
    name=${BASH_REMATCH[1]} ver=${BASH_REMATCH[2]}
  elif [[ $soname =~ ^(.+)-([0-9.]+)\.so$ ]]; then
    name=${BASH_REMATCH[1]} ver=${BASH_REMATCH[2]}
  else
    return 1
  fi
  awk -v n="$name" -v v="$ver" '$1 !~ /:$/ && $1 == n && $2 == v { print $3; exit }' "$shlibs"
}

depends_names() {
  dpkg-deb -f "$1" Depends | tr ',|' '\n\n' | awk 'NF { print $1 }' | sed 's/:.*//'
}

# Every NEEDED library of every program must map to a declared dependency.
needs_are_dependencies() {
  local deb=$1 dir=$2 shlibs=$3 f soname pkg ok=0
  local deps
  deps=$(depends_names "$deb")
  for f in $(elf_files "$dir"); do
    for soname in $(readelf -d "$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
      pkg=$(soname_package "$soname" "$shlibs")
      if [ -z "$pkg" ]; then
        echo "  no package known for $soname ($f)"; ok=1
      elif ! grep -qxF "$pkg" <<< "$deps"; then
        echo "  $soname ($pkg) is not in Depends: $(dpkg-deb -f "$deb" Depends)"; ok=1
      fi
    done
  done
  return $ok
}

static_checks() {
  local deb=$1 arch=$2 filearch=$3 shlibs=$4 dir=$work/$2
  echo "== $deb"
  check "$arch: package name" field_is "$deb" Package orvex-session
  check "$arch: architecture" field_is "$deb" Architecture "$arch"
  check "$arch: maintainer" field_set "$deb" Maintainer
  check "$arch: description" field_set "$deb" Description
  check "$arch: files only in /usr/local/sbin and /usr/local/bin" only_under_local_bins "$deb"
  check "$arch: daemon in /usr/local/sbin" has_file "$deb" /usr/local/sbin/orvex-session
  check "$arch: zs-call in /usr/local/bin" has_file "$deb" /usr/local/bin/zs-call
  check "$arch: orvex-devsim in /usr/local/bin" has_file "$deb" /usr/local/bin/orvex-devsim
  mkdir -p "$dir"
  dpkg-deb -x "$deb" "$dir"
  check "$arch: every program is $filearch" all_elf_are "$dir" "$filearch"
  check "$arch: every needed library is a dependency" needs_are_dependencies "$deb" "$dir" "$shlibs"
}

# --- running the programs; RUN holds the command prefix (empty, or qemu) ---
RUN=()

refuses_missing_mac() {
  local output status=0
  output=$(timeout 30 "${RUN[@]}" "$1/orvex-session" 2>&1) || status=$?
  [ $status = 1 ] && grep -q "invalid mac address" <<< "$output" ||
    { echo "  exit $status, output: $output"; return 1; }
}

usage_exits_2() {
  local status=0
  timeout 30 "${RUN[@]}" "$1/zs-call" >/dev/null 2>&1 || status=$?
  [ $status = 2 ] || { echo "  exit $status"; return 1; }
}

# Starts the simulator, waits for its ready line, asks it one HTTP question, then ends it
# by closing its standard input.
devsim_answers() {
  local line="" port code status=0 in out pid
  coproc DEVSIM { exec "${RUN[@]}" "$1/orvex-devsim" --family legacy --port 0 --stdin-watch 2>/dev/null; }
  # bash forgets the coprocess's variables once it has ended.
  in=${DEVSIM[1]} out=${DEVSIM[0]} pid=$DEVSIM_PID
  read -r -t 60 line <&"$out" || true
  if [[ $line =~ ^orvex-devsim\ listening\ on\ http://127\.0\.0\.1:([0-9]+)$ ]]; then
    port=${BASH_REMATCH[1]}
    code=$(curl -s -o /dev/null -w '%{http_code}' --max-time 20 "http://127.0.0.1:$port/") || true
  fi
  exec {in}>&-
  # The simulator was told to end with its input; make sure it does.
  timeout 30 tail --pid="$pid" -f /dev/null || { kill "$pid" 2>/dev/null; status=1; }
  wait "$pid" 2>/dev/null || true
  [ -n "${port:-}" ] || { echo "  no ready line (got: '$line')"; return 1; }
  [ "${code:-000}" != 000 ] || { echo "  no HTTP answer on port $port"; return 1; }
  return $status
}

run_checks() {
  local arch=$1 sbin=$2 bin=$3
  check "$arch: orvex-session without -m says \"invalid mac address\", exit 1" refuses_missing_mac "$sbin"
  check "$arch: zs-call without arguments exits 2" usage_exits_2 "$bin"
  check "$arch: orvex-devsim prints its ready line and answers HTTP" devsim_answers "$bin"
}

# --- amd64: install on this machine, run, remove ---
install_is_safe() {
  local f
  dpkg-query -W -f='${Status}' orvex-session 2>/dev/null | grep -q 'install ok installed' && return 0
  for f in $(package_files "$1"); do
    [ -e "$f" ] && { echo "  $f exists and is not from the package"; return 1; }
  done
  return 0
}

is_installed() { dpkg-query -W -f='${Status}' orvex-session 2>/dev/null | grep -q 'install ok installed'; }
not_installed() { ! is_installed; }

nothing_left() {
  local f left=0
  for f in $(package_files "$1"); do
    [ -e "$f" ] && { echo "  left behind: $f"; left=1; }
  done
  return $left
}

# The demo runs against the installed programs only when it can be told not to build and
# install its own (--installed); otherwise it would replace the package's files.
demo_takes_installed() { grep -q -- '--installed' "$root/scripts/demo.sh" 2>/dev/null; }

run_demo() {
  bash "$root/scripts/demo.sh" --installed >"$work/demo.log" 2>&1 ||
    { tail -20 "$work/demo.log"; return 1; }
}

test_amd64() {
  local deb
  deb=$(latest_deb amd64)
  [ -n "$deb" ] || { fail "amd64: package present in $out" "run scripts/package.sh amd64"; return; }
  static_checks "$deb" amd64 x86-64 host
  [ "$(id -u)" = 0 ] || { fail "amd64: install" "needs root"; return; }
  install_is_safe "$deb" || { fail "amd64: install" "refused: would overwrite files"; return; }
  cleanup_package=1
  check "amd64: dpkg -i installs" silently dpkg -i "$deb"
  check "amd64: installed" is_installed
  RUN=()
  run_checks amd64 /usr/local/sbin /usr/local/bin
  if demo_takes_installed; then
    check "amd64: scripts/demo.sh --installed against the installed programs" run_demo
  else
    echo "SKIP: amd64: scripts/demo.sh (it has no --installed mode yet)"
  fi
  check "amd64: dpkg -r removes" silently dpkg -r orvex-session
  cleanup_package=0
  restore_local_dirs
  check "amd64: no longer installed" not_installed
  check "amd64: none of its files left in /usr/local" nothing_left "$deb"
}

# --- arm64: well formed, and its programs run under emulation ---
test_arm64() {
  local deb dir=$work/arm64
  deb=$(latest_deb arm64)
  [ -n "$deb" ] || { fail "arm64: package present in $out" "run scripts/package.sh arm64"; return; }
  [ -f "$sysroot/DEBIAN/shlibs" ] || { fail "arm64: sysroot" "run scripts/cross-build.sh --setup-only"; return; }
  static_checks "$deb" arm64 "ARM aarch64" "$sysroot/DEBIAN/shlibs"
  RUN=(qemu-aarch64 -L "$sysroot")
  run_checks arm64 "$dir/usr/local/sbin" "$dir/usr/local/bin"
}

archs=("$@")
[ ${#archs[@]} -eq 0 ] && archs=(amd64 arm64)
for arch in "${archs[@]}"; do
  case $arch in
    amd64) test_amd64 ;;
    arm64) test_arm64 ;;
    *) say "unknown architecture '$arch' (amd64 or arm64)"; exit 2 ;;
  esac
done
echo "$passed passed, $failed failed"
[ $failed = 0 ]
