#!/usr/bin/env bash
# The unit under a real systemd: boots a throw-away Debian 12 container whose PID 1 is
# systemd (systemd-nspawn --boot, loopback only), installs the amd64 packages from
# out/packages (scripts/package.sh makes them) and checks what an operator relies on:
# READY before "Started", `orvexctl enable` signing the instance in, the daemon without
# capabilities and its port probe working all the same, the instance coming
# back signed in after SIGKILL and after its device was killed and restarted, an instance
# without settings failing once without a restart loop, an upgrade, the sign-out STATUS of
# both families, a signout that stays down, `disable` leaving no file, prerm and purge.
#
#   scripts/systemd-test.sh
#
# The container's root is made once with debootstrap from this machine's own Debian
# source, with the packages' run-time dependencies added, and kept in
# ORVEX_SYSTEMD_CACHE (default /var/cache/orvex-systemd-root), one folder per recipe
# (suite, source, package list); each run boots an overlay of it that is thrown away.
# Every process it starts ends with the container (trap). Needs root, systemd-nspawn and
# debootstrap (scripts/setup.sh); a machine that cannot boot the container fails the
# script with the reason. Ends with "N passed, N failed"; ORVEX_TALLY, when set, names a
# file that receives "PASSED FAILED".
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${ORVEX_PACKAGE_DIR:-$root/out/packages}
cache=${ORVEX_SYSTEMD_CACHE:-/var/cache/orvex-systemd-root}
suite=bookworm
base_packages=systemd,systemd-sysv,dbus,lsof,procps,iproute2
# shellcheck source=scripts/checks.sh
source "$root/scripts/checks.sh"

say() { echo "systemd-test.sh [$((SECONDS - started))s]: $*" >&2; }
started=$SECONDS

# Devices and instances: a legacy and a token device on fixed ports (a restarted device
# must come back on its port), and three MACs.
legacy_port=18080
token_port=18443
mac_legacy=02:00:00:00:25:01
mac_token=02:00:00:00:25:02
mac_bare=02:00:00:00:25:03
legacy_device="legacy device 127.0.0.1:$legacy_port"
token_device="token device 127.0.0.1:$token_port (https)"
unit_of() { echo "orvex-session@$1.service"; }

# --- the cached root ---

mirror() {
  local uri
  uri=$(sed -n 's/^URIs:[[:space:]]*//p' /etc/apt/sources.list.d/*.sources 2>/dev/null | grep -v security | head -n1)
  [ -n "$uri" ] || uri=$(awk '$1 == "deb" && $3 == "'$suite'" { print $2; exit }' /etc/apt/sources.list 2>/dev/null)
  echo "${uri%% *}"
}

# The run-time dependencies of the packages (names only; the versions are the suite's).
dependencies() {
  local deb
  for deb in "$@"; do dpkg-deb -f "$deb" Depends; done | tr ',|' '\n\n' | awk 'NF { print $1 }' | sed 's/:.*//' |
    sort -u | tr '\n' ' '
}

container_root=
make_root() {
  local uri=$1 deps=$2 key dir
  key=$(printf '%s|%s|%s|%s\n' "$suite" "$uri" "$base_packages" "$deps" | sha256sum | cut -c1-16)
  dir=$cache/$key
  container_root=$dir
  [ -e "$dir/.complete" ] && return 0
  say "making the container's root in $dir (debootstrap from $uri, about 2 minutes)"
  mkdir -p "$cache" || return 1
  # Roots of other recipes are not used again.
  find "$cache" -mindepth 1 -maxdepth 1 ! -name "$key" -exec rm -rf {} +
  rm -rf "$dir"
  debootstrap --variant=minbase --include="$base_packages" "$suite" "$dir" "$uri" >"$cache/debootstrap.log" 2>&1 ||
    { tail -n 20 "$cache/debootstrap.log"; return 1; }
  # shellcheck disable=SC2086
  systemd-nspawn -q -D "$dir" --register=no --keep-unit --pipe -E DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends $deps >"$cache/dependencies.log" 2>&1 ||
    { tail -n 20 "$cache/dependencies.log"; return 1; }
  touch "$dir/.complete"
}

# --- the container ---

work=
nspawn_pid=
pid1=
cleanup() {
  local _
  if [ -n "$nspawn_pid" ] && kill -0 "$nspawn_pid" 2>/dev/null; then
    kill -TERM "$nspawn_pid" 2>/dev/null
    for _ in $(seq 60); do kill -0 "$nspawn_pid" 2>/dev/null || break; sleep 0.5; done
    kill -KILL "$nspawn_pid" 2>/dev/null
    wait "$nspawn_pid" 2>/dev/null
  fi
  [ -n "$work" ] && rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# A command inside the container, with a clean environment.
in_ct() { nsenter -t "$pid1" -a -- env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"; }

boot() {
  local debs=$1 _ state
  setsid systemd-nspawn -q -D "$container_root" --volatile=overlay --boot --register=no --keep-unit \
    --private-network --bind-ro="$debs:/debs" --console=passive >"$work/nspawn.log" 2>&1 &
  nspawn_pid=$!
  for _ in $(seq 300); do
    pid1=$(pgrep -P "$nspawn_pid" -x systemd | head -n1)
    [ -n "$pid1" ] && break
    kill -0 "$nspawn_pid" 2>/dev/null || break
    sleep 0.1
  done
  [ -n "$pid1" ] || { echo "  no systemd started: $(tail -n 5 "$work/nspawn.log" | tr '\n' ' ')"; return 1; }
  # Until systemd serves its own socket, systemctl cannot ask; then --wait waits for the boot.
  for _ in $(seq 120); do
    state=$(timeout 60 nsenter -t "$pid1" -a -- systemctl is-system-running --wait 2>/dev/null)
    case $state in running|degraded) return 0 ;; esac
    kill -0 "$nspawn_pid" 2>/dev/null || break
    sleep 0.5
  done
  echo "  the container's systemd is '${state:-not answering}': $(tail -n 5 "$work/nspawn.log" | tr '\n' ' ')"
  return 1
}

# --- what the checks read ---

prop() { in_ct systemctl show -p "$2" --value "$(unit_of "$1")"; }
main_pid() { prop "$1" MainPID; }
status_text() { prop "$1" StatusText; }
# wait_until SECONDS COMMAND...: true once the command succeeds within the time.
wait_until() {
  local limit=$(($(date +%s) + $1))
  shift
  until "$@"; do
    [ "$(date +%s)" -lt "$limit" ] || return 1
    sleep 0.5
  done
}
signed_in_to() { [ "$(status_text "$1")" = "signed in to $2" ]; }
# orvexctl status agrees: the record of the unit's main process, running and signed in.
ctl_says_signed_in() {
  local json pid
  pid=$(main_pid "$1")
  json=$(in_ct orvexctl status "$1" --json=short) || { echo "  orvexctl status: $json"; return 1; }
  grep -q "\"pid\":$pid,\"state\":\"running\"" <<<"$json" && grep -q '"signed_in":true' <<<"$json" ||
    { echo "  orvexctl status (main pid $pid): $json"; return 1; }
}
signed_in_with_new_pid() {
  local pid
  pid=$(main_pid "$1")
  [ "$pid" != 0 ] && [ "$pid" != "$2" ] && signed_in_to "$1" "$3"
}
# back_signed_in SECONDS MAC PID: the legacy instance signed in again within the time,
# under a main pid other than PID.
back_signed_in() {
  local mac=$2 pid=$3
  wait_until "$1" signed_in_with_new_pid "$mac" "$pid" "$legacy_device" ||
    { echo "  pid $(main_pid "$mac") (was $pid), STATUS '$(status_text "$mac")'"; return 1; }
}
# start_signed_in MAC DEVICE: systemctl start, then signed in to DEVICE within 10 s.
start_signed_in() {
  in_ct systemctl start "$(unit_of "$1")" && wait_until 10 signed_in_to "$1" "$2"
}
listening() { in_ct ss -Htln "sport = :$1" | grep -q LISTEN; }

# --- the checks ---

ready_before_started() {
  local reply
  in_ct systemctl start "$(unit_of "$mac_bare")" || return 1
  # Type=notify: start returns at READY=1, when systemd logs "Started": the bus serves then.
  # (help, not a session method: "not signin" would end the process, as any session error.)
  reply=$(in_ct zs-call "@/var/run/orvex/orvex-session@$mac_bare" help 2>&1)
  grep -q 'get_device_system_info' <<<"$reply" || { echo "  no answer right after start: $reply"; return 1; }
  in_ct journalctl -q -u "$(unit_of "$mac_bare")" -o cat | grep -q '^Started ' ||
    { echo "  no \"Started\" in the journal"; return 1; }
}

start_device() {
  local name=$1 port=$2
  shift 2
  in_ct systemctl reset-failed "$name" 2>/dev/null
  in_ct systemd-run -q --unit="$name" /usr/bin/orvex-devsim --port "$port" "$@" &&
    wait_until 20 listening "$port"
}

devices_run() {
  start_device devsim-legacy "$legacy_port" --family legacy &&
    start_device devsim-token "$token_port" --family token --tls
}

# enable, then signed in within 10 s: STATUS, orvexctl status, and a call that reaches the device.
enable_signs_in() {
  local mac=$1 device=$2 begin=$SECONDS
  shift 2
  in_ct "$@" >"$work/enable.out" 2>&1 || { sed 's/^/  /' "$work/enable.out"; return 1; }
  wait_until 10 signed_in_to "$mac" "$device" || { echo "  STATUS: '$(status_text "$mac")'"; return 1; }
  ctl_says_signed_in "$mac" || return 1
  in_ct orvexctl call "$mac" get_device_system_info >/dev/null || return 1
  echo "  signed in after $((SECONDS - begin)) s: $(status_text "$mac")"
}

enable_legacy() {
  enable_signs_in "$mac_legacy" "$legacy_device" sh -c \
    "printf secret | orvexctl enable $mac_legacy --ip 127.0.0.1 --port $legacy_port --user admin --pass-stdin"
}

enable_token() {
  enable_signs_in "$mac_token" "$token_device" env DEVICE_PASS=secret \
    orvexctl enable "$mac_token" --ip 127.0.0.1 --port "$token_port" --user admin --secure --pass-env DEVICE_PASS
}

# The password is in no file but the root-only ones, on no command line, in no environment.
password_kept_apart() {
  local mac=$mac_legacy pid conf cred
  pid=$(main_pid "$mac")
  conf=/etc/orvex/orvex-session@$mac.conf
  cred=$(in_ct sh -c "ls /etc/orvex/orvex-session@$mac.cred /etc/orvex/orvex-session@$mac.pass 2>/dev/null")
  [ -n "$cred" ] || { echo "  no stored password"; return 1; }
  [ "$(in_ct stat -c '%a %U' "$conf" "$cred" 2>&1 | sort -u)" = "600 root" ] ||
    { echo "  modes: $(in_ct stat -c '%n %a %U' "$conf" "$cred")"; return 1; }
  if in_ct grep -qa secret "$conf" "/proc/$pid/cmdline" "/proc/$pid/environ"; then
    echo "  the password shows outside the credential"; return 1
  fi
  echo "  stored as $cred"
}

# The unit leaves the daemon no capability; its port probe reads the kernel's socket
# tables all the same: a port another root program holds (the legacy device, with every
# capability, where no rsyslogd runs) is refused, a free one goes through to the device.
port_probe_without_capabilities() {
  local mac=$mac_token pid reply
  pid=$(main_pid "$mac")
  reply=$(in_ct grep -E '^Cap(Prm|Eff|Bnd):' "/proc/$pid/status" | awk '{ print $2 }' | sort -u)
  [ "$reply" = 0000000000000000 ] || { echo "  capabilities of pid $pid: $(echo $reply)"; return 1; }
  reply=$(in_ct orvexctl call "$mac" set_device_rsyslog_server_config \
    "{\"tcp_enable\":true,\"tcp_port\":$legacy_port}" 2>&1)
  grep -q 'tcp_port occupied' <<<"$reply" || { echo "  a held port: $reply"; return 1; }
  reply=$(in_ct orvexctl call "$mac" set_device_rsyslog_server_config '{"tcp_enable":true,"tcp_port":18514}' 2>&1) ||
    { echo "  a free port: $reply"; return 1; }
}

comes_back_after_sigkill() {
  local mac=$mac_legacy pid begin=$SECONDS
  pid=$(main_pid "$mac")
  # (kill 0 would be our own process group.)
  [ "$pid" -gt 1 ] || { echo "  no main process"; return 1; }
  in_ct kill -KILL "$pid" || return 1
  back_signed_in 15 "$mac" "$pid" || return 1
  ctl_says_signed_in "$mac" || return 1
  echo "  pid $pid -> $(main_pid "$mac") after $((SECONDS - begin)) s"
}

comes_back_after_device_restart() {
  local mac=$mac_legacy pid begin=$SECONDS
  pid=$(main_pid "$mac")
  in_ct systemctl kill -s KILL devsim-legacy || return 1
  wait_until 10 eval '! listening $legacy_port' || return 1
  sleep 2
  start_device devsim-legacy "$legacy_port" --family legacy || { echo "  the device did not come back"; return 1; }
  back_signed_in 90 "$mac" "$pid" || return 1
  ctl_says_signed_in "$mac" || return 1
  in_ct orvexctl call "$mac" get_device_system_info >/dev/null || return 1
  echo "  pid $pid -> $(main_pid "$mac") $((SECONDS - begin)) s after the device was killed"
}

# Installing the package again runs the upgrade's prerm (stop) and postinst (start the
# enabled instances).
upgrade_brings_it_back() {
  local mac=$mac_legacy pid
  pid=$(main_pid "$mac")
  in_ct dpkg -i /debs/orvex-session.deb >"$work/upgrade.out" 2>&1 || { sed 's/^/  /' "$work/upgrade.out"; return 1; }
  back_signed_in 15 "$mac" "$pid" || return 1
}

# systemctl stop with systemd's debug log on: the notifications are in the journal, and
# the STATUS after STOPPING=1 is the sign-out's.
signout_status_on_stop() {
  local mac=$1 notes
  in_ct systemd-analyze log-level debug
  in_ct systemctl stop "$(unit_of "$mac")"
  in_ct systemd-analyze log-level info
  notes=$(in_ct journalctl -q -u "$(unit_of "$mac")" -o cat | grep -o 'Got notification message.*' |
    sed -n '/STOPPING=1/,$p')
  grep -q 'STATUS=signed out' <<<"$notes" ||
    { echo "  after STOPPING=1: ${notes:-nothing}"; return 1; }
}

inactive_not_restarted() {
  local mac=$1 state
  sleep 5
  state=$(prop "$mac" ActiveState)/$(prop "$mac" Result)/$(prop "$mac" NRestarts)
  [ "$state" = inactive/success/0 ] || { echo "  state/result/restarts: $state"; return 1; }
}

signout_stays_down() {
  local mac=$mac_token
  start_signed_in "$mac" "$token_device" || return 1
  in_ct orvexctl stop "$mac" >/dev/null || return 1
  inactive_not_restarted "$mac" || return 1
  # The end record: a normal stop, so status exits 0.
  in_ct orvexctl status "$mac" | grep -q ' stopped: signout ' ||
    { echo "  orvexctl status: $(in_ct orvexctl status "$mac")"; return 1; }
}

no_file_of() {
  local mac=$1 f left=0
  for f in "/etc/orvex/orvex-session@$mac.conf" "/etc/orvex/orvex-session@$mac.cred" \
      "/etc/orvex/orvex-session@$mac.pass" "/etc/systemd/system/orvex-session@$mac.service.d" \
      "/etc/systemd/system/multi-user.target.wants/orvex-session@$mac.service"; do
    in_ct test -e "$f" && { echo "  left behind: $f"; left=1; }
  done
  return $left
}

disable_leaves_nothing() {
  in_ct orvexctl disable "$mac_legacy" >/dev/null || return 1
  [ "$(prop "$mac_legacy" ActiveState)" = inactive ] || { echo "  still $(prop "$mac_legacy" ActiveState)"; return 1; }
  no_file_of "$mac_legacy"
}

# Two minutes after its start: ended once for good, with a STATUS that says why.
bare_instance_fails_once() {
  local since=$1 state
  [ $((SECONDS - since)) -ge 120 ] || sleep $((120 - (SECONDS - since)))
  state=$(prop "$mac_bare" ActiveState)/$(prop "$mac_bare" NRestarts)/$(prop "$mac_bare" ExecMainStatus)
  echo "  state/restarts/exit status after 2 minutes: $state; STATUS '$(status_text "$mac_bare")'"
  [ "$(prop "$mac_bare" NRestarts)" -le 1 ] && [ "$(prop "$mac_bare" ActiveState)" != active ] &&
    status_text "$mac_bare" | grep -q 'no settings' || return 1
  # The end record says the same, and status exits 3 for an abnormal end.
  in_ct orvexctl status "$mac_bare" >"$work/bare.status"
  [ $? = 3 ] && grep -q ' ended: not signed in, and no settings in ' "$work/bare.status" ||
    { echo "  orvexctl status: $(cat "$work/bare.status")"; return 1; }
}

no_session_process() { ! in_ct pgrep -x orvex-session >/dev/null; }

prerm_stops_instances() {
  start_signed_in "$mac_token" "$token_device" || return 1
  in_ct dpkg -r orvex-session >"$work/remove.out" 2>&1 || { sed 's/^/  /' "$work/remove.out"; return 1; }
  sleep 5
  no_session_process || { echo "  a session process runs after the removal"; return 1; }
}

purge_leaves_nothing() {
  local f left=0
  in_ct dpkg --purge orvex-session orvex-devsim >"$work/purge.out" 2>&1 || { sed 's/^/  /' "$work/purge.out"; return 1; }
  for f in /etc/orvex /var/log/orvex /run/orvex /usr/local/sbin/orvex-session /usr/bin/orvexctl \
      /lib/systemd/system/orvex-session@.service; do
    in_ct test -e "$f" && { echo "  left behind: $f"; left=1; }
  done
  no_file_of "$mac_token" && [ $left = 0 ]
}

run_checks() {
  local bare_started
  check "the packages install in the container" in_ct dpkg -i /debs/orvex-session.deb /debs/orvex-devsim.deb
  bare_started=$SECONDS
  check "READY=1 before \"Started\": the bus answers as soon as systemctl start returns" ready_before_started
  check "two simulated devices run (legacy :$legacy_port, token :$token_port)" devices_run
  check "enable (legacy, --pass-stdin): signed in within 10 s (STATUS, orvexctl status)" enable_legacy
  check "enable (token, --secure, --pass-env): signed in within 10 s" enable_token
  check "the password is kept in root-only files only" password_kept_apart
  check "no capability, and the port probe tells a held port from a free one" port_probe_without_capabilities
  check "SIGKILL: signed in again with a new pid within 15 s" comes_back_after_sigkill
  check "device killed and restarted on its port: signed in again within 90 s" comes_back_after_device_restart
  check "upgrade: the enabled instance is stopped and comes back signed in" upgrade_brings_it_back
  check "legacy: STATUS after STOPPING=1 says signed out" signout_status_on_stop "$mac_legacy"
  check "token: STATUS after STOPPING=1 says signed out" signout_status_on_stop "$mac_token"
  check "signout (orvexctl stop): stays down, not failed, recorded as stopped" signout_stays_down
  check "disable: stopped, disabled, no file left" disable_leaves_nothing
  check "an instance without settings: restarted at most once in 2 minutes, STATUS and end record say why" \
    bare_instance_fails_once "$bare_started"
  check "prerm: a running instance is stopped and stays down" prerm_stops_instances
  check "purge: no file left" purge_leaves_nothing
}

main() {
  local session devsim uri
  [ "$(id -u)" = 0 ] || { fail "the container" "needs root"; return; }
  session=$(ls -t "$out"/orvex-session_*_amd64.deb 2>/dev/null | head -n1)
  devsim=$(ls -t "$out"/orvex-devsim_*_amd64.deb 2>/dev/null | head -n1)
  [ -n "$session" ] && [ -n "$devsim" ] || { fail "the amd64 packages" "none in $out: run scripts/package.sh amd64"; return; }
  command -v systemd-nspawn >/dev/null && command -v debootstrap >/dev/null ||
    { fail "the container" "systemd-nspawn or debootstrap missing: run scripts/setup.sh"; return; }
  uri=$(mirror)
  [ -n "$uri" ] || { fail "the container's root" "no Debian source in /etc/apt"; return; }
  check "the container's root (cached in $cache)" make_root "$uri" "$(dependencies "$session" "$devsim")" || return
  work=$(mktemp -d /tmp/orvex-systemd-test.XXXXXX)
  mkdir "$work/debs" && cp "$session" "$work/debs/orvex-session.deb" && cp "$devsim" "$work/debs/orvex-devsim.deb"
  check "the container boots with systemd as PID 1" boot "$work/debs" || return
  run_checks
}

main
say "done"
tally
