#!/usr/bin/env bash
# The demo: installs the dependencies, builds and installs orvex-session and its tools, then
# plays one simulated device of each firmware family (legacy over HTTP, token over HTTPS),
# starts a session process for each with orvexctl and runs every method, printing each call
# and its reply. Everything it started is stopped on exit, whatever happens.
# Run as root on Debian 12: it installs to /usr/local and uses /var/lock and /var/log/orvex.
#   scripts/demo.sh [--installed]   --installed: use the programs the .deb packages
#                                   installed (/usr/bin, daemon in /usr/local/sbin);
#                                   no build, no install.
set -euo pipefail
installed=0
[ "${1:-}" = --installed ] && installed=1
cd "$(dirname "$0")/.."

if [ "$(id -u)" != 0 ]; then
  echo "demo.sh: run as root (installs to /usr/local, writes /var/lock and /var/log/orvex)" >&2
  exit 1
fi

# cmake --install puts the tools in /usr/local/bin, the packages in /usr/bin; the daemon
# is /usr/local/sbin/orvex-session either way.
bin=/usr/local/bin
[ "$installed" = 1 ] && bin=/usr/bin
legacy_mac=02:00:00:00:00:01
token_mac=02:00:00:00:00:02
work=$(mktemp -d /tmp/orvex-demo.XXXXXX)
pids=()

cleanup() {
  set +e
  [ -x "$bin/orvexctl" ] && "$bin/orvexctl" stop --all 2>/dev/null
  # Anything still holding a demo lock file (e.g. after an interrupted run) goes too.
  for mac in "$legacy_mac" "$token_mac"; do
    lock=/var/lock/orvex-session@$mac.pid
    if [ -f "$lock" ] && ! flock -n "$lock" true; then kill "$(cat "$lock")" 2>/dev/null; fi
  done
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

section() { printf '\n=== %s\n' "$*"; }

# Prints the command and its output; keeps the output in $reply. Failures are shown, not fatal.
run() {
  printf '$ %s\n' "$*"
  local status=0
  reply=$("$@" 2>&1) || status=$?
  [ -z "$reply" ] || printf '%s\n' "$reply"
  [ "$status" = 0 ] || printf '(exit status %s)\n' "$status"
}

call() { run "$bin/orvexctl" call "$@"; }

if [ "$installed" = 0 ]; then
  section "Dependencies, build and install"
  bash scripts/setup.sh
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j"$(nproc)" --target orvex-session orvexctl orvex-devsim zs-call
  cmake --install build
fi

# Starts a simulator and waits for its ready line; sets $port.
start_device() {
  local name=$1
  shift
  local fd
  exec {fd}< <(exec "$bin/orvex-devsim" "$@" --log "$work/$name-requests.log")
  pids+=($!)
  local line
  if ! read -r -t 15 -u "$fd" line; then
    echo "demo.sh: orvex-devsim ($name) did not start" >&2
    exit 1
  fi
  echo "$name device: $line"
  port=${line##*:}
}

# A UDP listener on loopback (perl is part of every Debian system) for the test message.
start_udp_listener() {
  exec {udp_fd}< <(exec perl -MIO::Socket::INET -e '
    $| = 1;
    my $s = IO::Socket::INET->new(LocalAddr => "127.0.0.1", LocalPort => 0, Proto => "udp") or die "udp: $!\n";
    print $s->sockport, "\n";
    while (defined $s->recv(my $line, 4096)) { print $line, "\n"; }')
  pids+=($!)
  read -r -t 15 -u "$udp_fd" udp_port
  echo "UDP listener on 127.0.0.1:$udp_port"
}

section "Simulated devices"
start_device legacy --family legacy
legacy_port=$port
start_device token --family token --tls
token_port=$port
start_udp_listener
export DEVICE_PASS=secret

# Every method of one device's session process.
exercise() {
  local mac=$1 port=$2 secure=$3
  section "Session for $mac (device on port $port${secure:+, HTTPS})"
  run "$bin/orvexctl" start "$mac" --ip 127.0.0.1 --port "$port" --user admin --pass-env DEVICE_PASS $secure
  call "$mac" get_device_system_info
  call "$mac" get_device_rsyslog_config
  # The syslog server switch: sent without "enable" it switches the device's server off.
  call "$mac" set_device_rsyslog_server_config '{"tcp_enable":true,"udp_enable":true,"tcp_port":1514,"udp_port":1514}'
  call "$mac" set_device_rsyslog_client_config '{"bsd":true,"orvex":true}'
  call "$mac" add_device_rsyslog_client "{\"address\":\"127.0.0.1\",\"mode\":3,\"port\":$udp_port,\"event\":true}"
  local id
  id=$(printf '%s' "$reply" | sed -n 's/.*"id":\([0-9]*\).*/\1/p')
  call "$mac" get_device_rsyslog_client
  call "$mac" set_device_rsyslog_client "{\"id\":$id,\"address\":\"127.0.0.1\",\"mode\":3,\"port\":$udp_port,\"event\":true,\"access\":true}"
  call "$mac" set_device_rsyslog_client_enable "{\"id\":$id}"
  call "$mac" set_device_rsyslog_client_disable "{\"id\":$id}"
  call "$mac" add_device_rsyslog_client_test "{\"mode\":3,\"address\":\"127.0.0.1\",\"port\":$udp_port,\"bsd\":false}"
  local received
  if read -r -t 5 -u "$udp_fd" received; then
    echo "UDP listener received: $received"
  else
    echo "UDP listener received nothing"
  fi
  call "$mac" del_device_rsyslog_client "{\"id\":$id}"
  call "$mac" get_device_rsyslog_config
  echo "(on purpose: changing a destination without its id is refused, and the session lives on)"
  call "$mac" set_device_rsyslog_client '{"address":"127.0.0.1","mode":3,"port":514}'
  call "$mac" get_device_system_info
  run "$bin/zs-call" "@/var/run/orvex/orvex-session@$mac" help '{"method":"set_device_rsyslog_client"}'
}

exercise "$legacy_mac" "$legacy_port" ""
exercise "$token_mac" "$token_port" --secure

section "The fleet as orvexctl sees it (looking does not count as use)"
run "$bin/orvexctl" list
run "$bin/orvexctl" status "$token_mac" --json=pretty

section "Help listing through the bus client"
run "$bin/zs-call" "@/var/run/orvex/orvex-session@$legacy_mac" help

section "What the legacy device saw (method and target of each request)"
sed -n 's/.*"method":"\([A-Z]*\)","target":"\([^"]*\)".*/\1 \2/p' "$work/legacy-requests.log"

section "Stopping"
run "$bin/orvexctl" stop "$legacy_mac"
run "$bin/orvexctl" call "$legacy_mac" get_device_system_info
run "$bin/orvexctl" stop --all
run "$bin/orvexctl" list --all   # how each session ended, and when
for mac in "$legacy_mac" "$token_mac"; do
  lock=/var/lock/orvex-session@$mac.pid
  for _ in $(seq 100); do flock -n "$lock" true && break; sleep 0.05; done
  flock -n "$lock" true && echo "$mac: session process ended" || echo "$mac: session process still running"
done
echo
echo "Sign-outs the devices saw: legacy $(grep -c authLogout "$work/legacy-requests.log"), token $(grep -c oauth/logout "$work/token-requests.log")"
