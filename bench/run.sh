#!/usr/bin/env bash
# The one benchmark command: installs the D-Bus baseline's packages if missing, builds the
# benchmark and the programs it drives in build-bench (RelWithDebInfo), checks the
# measuring code, then runs the whole benchmark inside one tests/isolate.sh namespace
# (daemons need private /run/lock and /var/log/orvex; traffic stays on loopback) and prints
# one table with a PASS/FAIL line per goal. The table is also left in
# build-bench/bench/daemon-bench.md. Extra arguments go to orvex_daemon_bench, e.g.
#   bench/run.sh --seconds 2 --launches 50 --daemons 50
# Exit status: 0 when every goal passes, 1 when one fails, other values for set-up errors.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${ORVEX_BENCH_BUILD:-$root/build-bench}

# Only the benchmark needs these; the project's own setup does not.
packages=(dbus-daemon libsystemd-dev pkg-config)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "bench/run.sh: installing ${missing[*]}" >&2
  if ! DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" >/dev/null; then
    apt-get update >/dev/null && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
      "${missing[@]}" >/dev/null || echo "bench/run.sh: could not install ${missing[*]}; the D-Bus baseline may be skipped" >&2
  fi
fi

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORVEX_TESTS=OFF >/dev/null
targets=(orvex_daemon_bench)
if cmake --build "$build" --target help | grep 'orvex_daemon_bench_test' >/dev/null; then
  targets+=(orvex_daemon_bench_test)
fi
nice cmake --build "$build" -j2 --target "${targets[@]}" >/dev/null
if [ -x "$build/bench/orvex_daemon_bench_test" ]; then
  "$root/tests/isolate.sh" "$build/bench/orvex_daemon_bench_test" --gtest_brief=1 >&2
fi

echo "bench/run.sh: $(nproc) CPUs, $(lscpu | sed -n 's/^Model name: *//p'), $(date -u +%Y-%m-%dT%H:%M:%SZ)" >&2
exec "$root/tests/isolate.sh" "$build/bench/orvex_daemon_bench" --markdown "$build/bench/daemon-bench.md" "$@"
