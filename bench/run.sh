#!/usr/bin/env bash
# The one benchmark command: installs the D-Bus baseline's packages if missing, builds the
# benchmark and the programs it drives in build-bench (RelWithDebInfo), then runs it inside
# one tests/isolate.sh namespace (private /run/lock, /var/log, /usr/local/sbin, with the
# built daemon copied there for orvexctl; traffic stays on loopback). Prints one table and
# a PASS/FAIL line per goal, also left in build-bench/bench/bench.md.
#   bench/run.sh            the full run (about 4 minutes: the fleet idles two 60 s
#                           keep-alive periods)
#   bench/run.sh --quick    a smoke run: short pairs, 50 devices, 10 s idle
# Further arguments go to orvex_bench (--seconds S --launches N --devices N --idle S --only PART).
# Exit status: 0 when every goal passes, 1 when one fails, other values for set-up errors.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVEX_BENCH_BUILD:-$root/build-bench}
args=()
if [ "${1:-}" = --quick ]; then
  shift
  args=(--seconds 0.4 --launches 5 --devices 50 --idle 10)
fi

# The D-Bus baseline's packages (the project itself does not need them).
packages=(dbus-daemon libsystemd-dev pkg-config)
dpkg -s "${packages[@]}" >/dev/null 2>&1 ||
  DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${packages[@]}" >/dev/null

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
nice cmake --build "$build" -j2 --target orvex_bench orvex-session orvex-devsim orvexctl >/dev/null
echo "bench/run.sh: $(nproc) CPUs, $(lscpu | sed -n 's/^Model name: *//p'), load $(cut -d' ' -f1-3 /proc/loadavg)," \
  "$(date -u +%Y-%m-%dT%H:%M:%SZ)" >&2
export ORVEX_ISOLATE_SBIN="$build/daemon/orvex-session"
exec "$root/tests/isolate.sh" "$build/bench/orvex_bench" --markdown "$build/bench/bench.md" "${args[@]}" "$@"
