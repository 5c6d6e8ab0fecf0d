#!/usr/bin/env bash
# Tests the Debian packages in out/packages (scripts/package.sh makes them) without
# changing anything installed on this machine.
#
#   scripts/package-test.sh [amd64] [arm64]        (default: both)
#
# Both: lintian (no error or warning; the one override is the daemon's /usr/local/sbin
# path), names, architectures, contents, Depends (lsof, and every library a program
# needs), and the programs run (arm64 ones under qemu-aarch64 with the arm64 sysroot).
# amd64, inside an isolated root: a private mount, network and pid namespace whose /usr,
# /etc and /var are overlays over the real ones (so dpkg sees the real dependencies but
# writes its database and files into throw-away layers) and whose /run is empty. There
# it installs both packages, checks the tmpfiles folders, verifies the unit with
# systemd-analyze, runs the installed programs and `scripts/demo.sh --installed`,
# removes the package while a session runs (prerm must stop it) and purges (nothing may
# be left). Whether the demo was installed into the real /usr/local before makes no
# difference, and the host's dpkg database and /usr/local stay exactly as they were.
#
# Ends with "N passed, N failed"; exit status 1 when a check failed. ORVEX_TALLY, when
# set, names a file that receives "PASSED FAILED". Needs root for the isolated root.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${ORVEX_PACKAGE_DIR:-$root/out/packages}
sysroot=${ORVEX_AARCH64_SYSROOT:-$root/build-aarch64-sysroot}
# shellcheck source=scripts/checks.sh
source "$root/scripts/checks.sh"

say() { echo "package-test.sh: $*" >&2; }

# Runs a command without its output, unless it fails.
silently() {
  local log status=0
  log=$(mktemp /tmp/orvex-package-cmd.XXXXXX)
  "$@" >"$log" 2>&1 || status=$?
  [ $status = 0 ] || sed 's/^/  /' "$log" | tail -n 40
  rm -f "$log"
  return $status
}

deb_of() { ls -t "$out/$1"_*_"$2".deb 2>/dev/null | head -1; }

field_is() { [ "$(dpkg-deb -f "$1" "$2")" = "$3" ]; }

# Non-folder paths in the package, without the leading ".".
package_files() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ { sub(/^\./, "", $6); print $6 }'; }
has_file() { package_files "$1" | grep -qxF "$2" || { echo "  $2 missing"; return 1; }; }

depends_names() {
  dpkg-deb -f "$1" Depends | tr ',|' '\n\n' | awk 'NF { print $1 }' | sed 's/:.*//'
}
depends_on() { depends_names "$1" | grep -qxF "$2" || { echo "  Depends: $(dpkg-deb -f "$1" Depends)"; return 1; }; }

# lintian: nothing but overridden tags and informational notes.
lintian_clean() {
  local report
  report=$(lintian --show-overrides --fail-on none "$1" 2>&1)
  if grep -E '^[EW]: ' <<<"$report"; then return 1; fi
  grep -E '^O: ' <<<"$report" | sed 's/^/  /'
  return 0
}

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

# Every NEEDED library of every program must map to a declared dependency.
needs_are_dependencies() {
  local deb=$1 dir=$2 shlibs=$3 f soname pkg ok=0 deps
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

session_files=(/usr/local/sbin/orvex-session /usr/bin/zs-call /usr/bin/orvexctl
  /lib/systemd/system/orvex-session@.service /usr/lib/tmpfiles.d/orvex-session.conf
  /usr/share/man/man8/orvex-session.8.gz /usr/share/man/man8/orvexctl.8.gz
  /usr/share/man/man1/zs-call.1.gz /usr/share/doc/orvex-session/copyright
  /usr/share/doc/orvex-session/changelog.gz)
devsim_files=(/usr/bin/orvex-devsim /usr/share/man/man1/orvex-devsim.1.gz)

static_checks() {
  local arch=$1 filearch=$2 shlibs=$3 work=$4 session devsim f
  session=$(deb_of orvex-session "$arch")
  devsim=$(deb_of orvex-devsim "$arch")
  [ -n "$session" ] && [ -n "$devsim" ] ||
    { fail "$arch: both packages present in $out" "run scripts/package.sh $arch"; return 1; }
  echo "== $session, $devsim"
  check "$arch: lintian orvex-session" lintian_clean "$session"
  check "$arch: lintian orvex-devsim" lintian_clean "$devsim"
  check "$arch: architecture" field_is "$session" Architecture "$arch"
  check "$arch: orvex-devsim architecture" field_is "$devsim" Architecture "$arch"
  for f in "${session_files[@]}"; do check "$arch: orvex-session has $f" has_file "$session" "$f"; done
  for f in "${devsim_files[@]}"; do check "$arch: orvex-devsim has $f" has_file "$devsim" "$f"; done
  check "$arch: orvex-session depends on lsof" depends_on "$session" lsof
  mkdir -p "$work/$arch"
  dpkg-deb -x "$session" "$work/$arch" && dpkg-deb -x "$devsim" "$work/$arch"
  check "$arch: every program is $filearch" all_elf_are "$work/$arch" "$filearch"
  check "$arch: orvex-session: every needed library is a dependency" \
    needs_are_dependencies "$session" "$work/$arch/usr/local/sbin" "$shlibs"
  check "$arch: orvex-devsim: every needed library is a dependency" \
    needs_are_dependencies "$devsim" "$work/$arch/usr/bin/orvex-devsim" "$shlibs"
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

# --- amd64, inside the isolated root ---

# Overlays over /usr, /etc and /var with their upper layers in WORK; an empty /run.
make_isolated_root() {
  local work=$1 d
  for d in usr etc var; do
    mkdir -p "$work/layers/$d/up" "$work/layers/$d/work" || return 1
    mount -t overlay overlay \
      -o "lowerdir=/$d,upperdir=$work/layers/$d/up,workdir=$work/layers/$d/work" "/$d" || return 1
  done
  mount -t tmpfs -o mode=0755 orvex-run /run || return 1
  mkdir -p /run/lock && chmod 1777 /run/lock || return 1
  ip link set lo up
}

is_installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
not_installed() { ! dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'installed'; }

folder_is() {
  local actual
  actual=$(stat -c '%a %U:%G' "$1" 2>/dev/null)
  [ "$actual" = "$2" ] || { echo "  $1: '${actual:-missing}', want '$2'"; return 1; }
}

# The template as installed (systemd-analyze names the instance "i"; with a MAC instance
# its alias lookup trips over the colons, which a running systemd accepts).
verify_unit() {
  local output status=0
  output=$(systemd-analyze verify --man=no /lib/systemd/system/orvex-session@.service 2>&1) || status=$?
  [ $status = 0 ] && [ -z "$output" ] || { echo "  exit $status: $output"; return 1; }
}

man_pages_render() {
  local page
  for page in orvex-session orvexctl zs-call orvex-devsim; do
    MANWIDTH=80 man "$page" 2>/dev/null | grep -q EXAMPLES || { echo "  man $page does not render"; return 1; }
  done
}

run_demo() {
  bash "$root/scripts/demo.sh" --installed >"$1/demo.log" 2>&1 ||
    { tail -20 "$1/demo.log"; return 1; }
}

alive() { [ -e "/proc/$1" ] && ! grep -qE '^[0-9]+ \(.*\) Z' "/proc/$1/stat"; }

session_pid=
start_session() {
  local _
  /usr/local/sbin/orvex-session -m 02:00:00:00:00:09 || return 1
  # The starter returns once the daemon has detached, before the daemon takes its lock.
  for _ in $(seq 100); do
    session_pid=$(cat /run/lock/orvex-session@02:00:00:00:00:09.pid 2>/dev/null)
    [ -n "$session_pid" ] && alive "$session_pid" && return 0
    sleep 0.1
  done
  echo "  no daemon holds /run/lock/orvex-session@02:00:00:00:00:09.pid after 10 s"
  return 1
}
# The prerm signs out and signals; give the process the grace period to go.
session_stopped() {
  local _
  for _ in $(seq 100); do alive "$session_pid" || return 0; sleep 0.1; done
  echo "  pid $session_pid still runs"
  return 1
}

nothing_left() {
  local f left=0
  for f in "${session_files[@]}" "${devsim_files[@]}" /var/log/orvex /run/orvex \
      /run/lock/orvex-session@02:00:00:00:00:09.pid /var/lib/dpkg/info/orvex-session.list; do
    [ -e "$f" ] && { echo "  left behind: $f"; left=1; }
  done
  return $left
}

# Runs as pid 1 of the private namespaces; everything it started dies with it.
inside_root() {
  local work=$1 session devsim
  session=$(deb_of orvex-session amd64)
  devsim=$(deb_of orvex-devsim amd64)
  make_isolated_root "$work" || { fail "amd64: isolated root" "mounts failed"; return; }
  pass "amd64: isolated root (overlays over /usr /etc /var, private /run)"
  check "amd64: dpkg -i installs both packages" silently dpkg -i "$session" "$devsim"
  check "amd64: orvex-session installed" is_installed orvex-session
  check "amd64: /var/log/orvex made by tmpfiles, 0755 root" folder_is /var/log/orvex "755 root:root"
  check "amd64: /run/orvex made by tmpfiles, 0755 root" folder_is /run/orvex "755 root:root"
  check "amd64: systemd-analyze verify orvex-session@.service" verify_unit
  check "amd64: man pages render" man_pages_render
  RUN=()
  run_checks amd64 /usr/local/sbin /usr/bin
  check "amd64: scripts/demo.sh --installed against the installed programs" run_demo "$work"
  check "amd64: a session runs before removal" start_session
  check "amd64: dpkg -r removes orvex-session" silently dpkg -r orvex-session
  check "amd64: removal stopped the running session" session_stopped
  check "amd64: dpkg --purge purges both" silently dpkg --purge orvex-session orvex-devsim
  check "amd64: orvex-session no longer known to dpkg" not_installed orvex-session
  check "amd64: purge left no file behind" nothing_left
}

test_amd64() {
  local work=$1 status=0
  static_checks amd64 x86-64 host "$work" || return
  [ "$(id -u)" = 0 ] || { fail "amd64: isolated root" "needs root"; return; }
  unshare --mount --net --pid --fork --mount-proc --propagation private -- \
    bash "$0" --inside-root "$work" || status=$?
  local p f
  read -r p f < "$work/inner-tally" 2>/dev/null || { p=0; f=1; }
  passed=$((passed + p))
  failed=$((failed + f))
  [ $status = 0 ] || [ "$f" -gt 0 ] || fail "amd64: isolated root" "exit $status"
}

test_arm64() {
  local work=$1
  [ -f "$sysroot/DEBIAN/shlibs" ] || { fail "arm64: sysroot" "run scripts/cross-build.sh --setup-only"; return; }
  static_checks arm64 "ARM aarch64" "$sysroot/DEBIAN/shlibs" "$work" || return
  RUN=(qemu-aarch64 -L "$sysroot")
  run_checks arm64 "$work/arm64/usr/local/sbin" "$work/arm64/usr/bin"
}

if [ "${1:-}" = --inside-root ]; then
  inside_root "$2"
  echo "$passed $failed" > "$2/inner-tally"
  exit 0
fi

archs=("$@")
[ ${#archs[@]} -eq 0 ] && archs=(amd64 arm64)
work=$(mktemp -d /tmp/orvex-package-test.XXXXXX)
trap 'rm -rf "$work"' EXIT
for arch in "${archs[@]}"; do
  case $arch in
    amd64) test_amd64 "$work" ;;
    arm64) test_arm64 "$work" ;;
    *) say "unknown architecture '$arch' (amd64 or arm64)"; exit 2 ;;
  esac
done
tally
