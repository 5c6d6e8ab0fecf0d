#!/usr/bin/env bash
# The test command: installs the dependencies, builds and runs every test, then runs the
# suite again under sanitizers, smoke-fuzzes each fuzz target, and cross-builds for
# aarch64 and runs the unit tests there under qemu, and checks the .deb packages.
#
#   scripts/test.sh [STAGE...]     stages: native asan tsan fuzz cross package (default: all)
#
# Environment: ORVEX_FUZZ_SECONDS (per fuzz target, default 15).
set -euo pipefail
cd "$(dirname "$0")/.."
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(native asan tsan fuzz cross package)
jobs=$(nproc)
passed=0
failed=0
started=$SECONDS

say() { echo "== test.sh [$(( SECONDS - started ))s] $*"; }

# Runs a command that ends in ctest, adds its summary to the closing line's counts, and
# fails the stage on failures.
run_counted() {
  local log rc line plain bad total
  log=$(mktemp)
  set +e
  "$@" 2>&1 | tee "$log"
  rc=${PIPESTATUS[0]}
  set -e
  line=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n1 || true)
  plain=$(grep -E '^([A-Za-z-]+: )?[0-9]+ passed, [0-9]+ failed' "$log" | tail -n1 || true)
  rm -f "$log"
  if [ -n "$plain" ] && [ -z "$line" ]; then
    passed=$(( passed + $(sed -E 's/^([A-Za-z-]+: )?([0-9]+) passed.*/\2/' <<<"$plain") ))
    failed=$(( failed + $(sed -E 's/.* ([0-9]+) failed.*/\1/' <<<"$plain") ))
  elif [ -n "$line" ]; then
    bad=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
    total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$line")
    passed=$(( passed + total - bad ))
    failed=$(( failed + bad ))
  elif [ "$rc" != 0 ]; then
    failed=$(( failed + 1 ))
  fi
  return "$rc"
}

configure_build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" "$@" >/dev/null
}

stage_native() {
  configure_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo || return 1
  cmake --build build -j"$jobs" || return 1
  run_counted ctest --output-on-failure --test-dir build -j"$jobs" --timeout 600
}

# The whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer. Reports of
# detached daemons and forked children go to files, collected after the run.
stage_asan() {
  configure_build build-asan -DCMAKE_BUILD_TYPE=Debug -DORVEX_SANITIZE=address,undefined -DORVEX_BENCH=OFF || return 1
  cmake --build build-asan -j"$jobs" || return 1
  local reports=$PWD/build-asan/sanitizer-reports
  rm -rf "$reports" && mkdir -p "$reports"
  export ASAN_OPTIONS="log_path=$reports/asan:detect_leaks=1"
  export UBSAN_OPTIONS="log_path=$reports/ubsan:print_stacktrace=1:halt_on_error=1"
  run_counted ctest --output-on-failure --test-dir build-asan -j"$jobs" --timeout 900
  unset ASAN_OPTIONS UBSAN_OPTIONS
  check_reports "$reports"
}

# The concurrency-heavy tests under ThreadSanitizer: queue, workers, the session with its
# keep-alive timer, the bus, and the daemon under load.
tsan_targets=(service_ticktock_test service_worker_test service_dispatch_test session_keepalive_test
  zservice_test orvex-session orvex-devsim zs-call e2e_session)
tsan_tests='^(service_ticktock_test|service_worker_test|service_dispatch_test|session_keepalive_test|zservice_test|e2e_session|load_)'
stage_tsan() {
  configure_build build-tsan -DCMAKE_BUILD_TYPE=Debug -DORVEX_SANITIZE=thread -DORVEX_BENCH=OFF || return 1
  local targets=("${tsan_targets[@]}")
  # The load tests, whatever their programs are called.
  mapfile -t -O "${#targets[@]}" targets < <(cmake --build build-tsan --target help | sed -n 's/^\.\.\. \(load_[a-z_]*\).*/\1/p')
  cmake --build build-tsan -j"$jobs" --target "${targets[@]}" || return 1
  local reports=$PWD/build-tsan/sanitizer-reports
  rm -rf "$reports" && mkdir -p "$reports"
  export TSAN_OPTIONS="log_path=$reports/tsan:halt_on_error=0"
  run_counted ctest --output-on-failure --test-dir build-tsan -j"$jobs" --timeout 900 -R "$tsan_tests"
  unset TSAN_OPTIONS
  check_reports "$reports"
}

# Fails on any sanitizer report except the ones tests/sanitizer-expected.txt names: the
# faults the system keeps on purpose, provoked by tests in child processes.
check_reports() {
  local f unexpected=()
  for f in $(find "$1" -type f -size +0 2>/dev/null | sort); do
    if grep -v '^#' tests/sanitizer-expected.txt | grep -v '^$' | grep -qFf - "$f"; then
      echo "expected sanitizer report (kept fault): $f"
    else
      unexpected+=("$f")
    fi
  done
  if [ ${#unexpected[@]} -gt 0 ]; then
    echo "sanitizer reports:"
    for f in "${unexpected[@]:0:20}"; do echo "--- $f"; head -n 60 "$f"; done
    failed=$(( failed + 1 ))
    return 1
  fi
  echo "no sanitizer reports"
}

stage_fuzz() {
  if bash scripts/fuzz.sh "${ORVEX_FUZZ_SECONDS:-15}"; then
    passed=$(( passed + 1 ))
  else
    failed=$(( failed + 1 ))
    return 1
  fi
}

stage_cross() {
  bash scripts/cross-build.sh || return 1
  run_counted bash scripts/cross-test.sh --no-build
}

# Builds the .deb packages, installs the amd64 one on this machine, runs the demo against
# it and removes it again (needs root; touches the real /usr/local on purpose).
stage_package() {
  bash scripts/package.sh || return 1
  run_counted bash scripts/package-test.sh
}

bash scripts/setup.sh
status=0
for stage in "${stages[@]}"; do
  say "stage $stage"
  if ! "stage_$stage"; then
    say "stage $stage FAILED"
    status=1
  fi
  say "stage $stage done"
done
# A failed build counts as a failure even when no test could run.
[ "$status" = 0 ] || [ "$failed" -gt 0 ] || failed=1
echo "test.sh: $passed passed, $failed failed"
exit "$status"
