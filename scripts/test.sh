#!/usr/bin/env bash
# The test command: installs the dependencies, builds and runs every test, then runs the
# suite again under sanitizers, smoke-fuzzes each fuzz target, cross-builds for aarch64
# and runs the unit tests there under qemu, builds and checks the .deb packages in an
# isolated root, and checks the unit under a real systemd in a throw-away container. It
# changes nothing installed on the machine.
#
#   scripts/test.sh [STAGE...]     stages: native asan tsan fuzz cross package systemd
#                                  (default: all)
#
# Pass or fail comes from exit statuses only: any failing build, test, sanitizer report
# or check in any stage makes the command exit 1. The closing line
# "test.sh: N passed, N failed" counts tests from ctest's JUnit files (a step without
# such counts, e.g. a build, counts as one); "0 failed" if and only if the exit status is 0.
#
# Environment: ORVEX_FUZZ_SECONDS (per fuzz target, default 15).
#
# No `set -e`: bash ignores it inside functions called from a condition, so every status
# is checked where it is produced.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=(native asan tsan fuzz cross package systemd)
jobs=$(nproc)
passed=0
failed=0
started=$SECONDS

say() { echo "== test.sh [$(( SECONDS - started ))s] $*"; }

for stage in "${stages[@]}"; do
  case $stage in
    native|asan|tsan|fuzz|cross|package|systemd) ;;
    *) echo "test.sh: unknown stage '$stage' (native asan tsan fuzz cross package systemd)" >&2; exit 2 ;;
  esac
done

# step NAME COMMAND...: a step without test counts of its own (build, fuzz run).
step() {
  local name=$1
  shift
  if "$@"; then
    passed=$(( passed + 1 ))
    return 0
  fi
  say "FAILED: $name"
  failed=$(( failed + 1 ))
  return 1
}

# junit_counts FILE: prints "TESTS FAILED" from a ctest JUnit file (skipped tests count as
# neither), or nothing when there is no such file.
junit_counts() {
  [ -s "$1" ] || return 0
  # ctest writes the <testsuite> attributes one per line.
  tr '\n\t' '  ' < "$1" | grep -o '<testsuite [^>]*>' | head -n1 |
    sed -n 's/.*tests="\([0-9]*\)".*failures="\([0-9]*\)".*skipped="\([0-9]*\)".*/\1 \2 \3/p' |
    awk '{ print $1 - $3, $2 }'
}

# run_ctest JUNIT COMMAND...: a command that ends in ctest and writes its JUnit file to
# JUNIT. The exit status decides; the file only supplies the counts.
run_ctest() {
  local junit=$1 rc=0 counts total bad
  shift
  rm -f "$junit"
  "$@" || rc=$?
  counts=$(junit_counts "$junit")
  if [ -n "$counts" ]; then
    read -r total bad <<<"$counts"
    passed=$(( passed + total - bad ))
    failed=$(( failed + bad ))
  fi
  if [ "$rc" != 0 ]; then
    # A failure ctest did not count (no tests, a crash, a time-out of ctest itself).
    [ -n "$counts" ] && [ "$bad" -gt 0 ] || failed=$(( failed + 1 ))
    say "FAILED: $* (exit $rc)"
    return 1
  fi
  return 0
}

# ccache (from scripts/setup.sh) makes a repeated run rebuild only what changed.
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
configure_build() {
  local dir=$1
  shift
  cmake -S . -B "$dir" "${launcher[@]}" "$@" >/dev/null
}

ctest_args=(--output-on-failure -j"$jobs" --no-tests=error)

stage_native() {
  step "configure build" configure_build build -DCMAKE_BUILD_TYPE=RelWithDebInfo || return 1
  step "build build" cmake --build build -j"$jobs" || return 1
  run_ctest "$PWD/build/ctest-junit.xml" \
    ctest "${ctest_args[@]}" --test-dir build --timeout 600 --output-junit "$PWD/build/ctest-junit.xml"
}

# Sanitizer reports of daemons and children that the tests start land in files; any
# report not listed as an expected, deliberately kept fault fails the stage.
check_reports() {
  local f unexpected=()
  while IFS= read -r -d '' f; do
    if grep -v '^#' tests/sanitizer-expected.txt | grep -v '^$' | grep -qFf - "$f"; then
      echo "expected sanitizer report (kept fault): $f"
    else
      unexpected+=("$f")
    fi
  done < <(find "$1" -type f -size +0 -print0 2>/dev/null | sort -z)
  if [ ${#unexpected[@]} -gt 0 ]; then
    echo "${#unexpected[@]} sanitizer report(s):"
    for f in "${unexpected[@]:0:20}"; do echo "--- $f"; head -n 60 "$f"; done
    return 1
  fi
  echo "no sanitizer reports"
}

# sanitized_run DIR CTEST-ARGS...: ctest in DIR with reports in DIR/sanitizer-reports.
sanitized_run() {
  local dir=$1 rc=0
  shift
  local reports=$PWD/$dir/sanitizer-reports
  rm -rf "$reports" && mkdir -p "$reports" || return 1
  ASAN_OPTIONS="log_path=$reports/asan:detect_leaks=1" \
  UBSAN_OPTIONS="log_path=$reports/ubsan:print_stacktrace=1:halt_on_error=1" \
  TSAN_OPTIONS="log_path=$reports/tsan:halt_on_error=0" \
    run_ctest "$PWD/$dir/ctest-junit.xml" \
    ctest "${ctest_args[@]}" --test-dir "$dir" --timeout 900 --output-junit "$PWD/$dir/ctest-junit.xml" "$@" || rc=1
  step "sanitizer reports in $dir" check_reports "$reports" || rc=1
  return $rc
}

# The whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer.
stage_asan() {
  step "configure build-asan" configure_build build-asan -DCMAKE_BUILD_TYPE=Debug \
    -DORVEX_SANITIZE=address,undefined -DORVEX_BENCH=OFF || return 1
  step "build build-asan" cmake --build build-asan -j"$jobs" || return 1
  sanitized_run build-asan
}

# The tests labelled tsan (tests/*/*.cmake) under ThreadSanitizer; the build target
# orvex_tsan_tests holds exactly those test programs and the programs they start.
stage_tsan() {
  step "configure build-tsan" configure_build build-tsan -DCMAKE_BUILD_TYPE=Debug \
    -DORVEX_SANITIZE=thread -DORVEX_BENCH=OFF || return 1
  step "build build-tsan" cmake --build build-tsan -j"$jobs" --target orvex_tsan_tests || return 1
  sanitized_run build-tsan -L tsan
}

stage_fuzz() {
  step "fuzz" bash scripts/fuzz.sh "${ORVEX_FUZZ_SECONDS:-15}"
}

stage_cross() {
  local junit=$PWD/build-aarch64/ctest-junit.xml
  step "cross build" bash scripts/cross-build.sh || return 1
  run_ctest "$junit" bash scripts/cross-test.sh --no-build --no-tests=error --output-junit "$junit"
}

# tallied SCRIPT: a check script that writes "PASSED FAILED" to $ORVEX_TALLY; its checks
# count as tests.
tallied() {
  local tally rc=0 p=0 f=0
  tally=$(mktemp /tmp/orvex-test-tally.XXXXXX) || return 1
  ORVEX_TALLY=$tally bash "$1" || rc=$?
  read -r p f < "$tally" 2>/dev/null
  rm -f "$tally"
  passed=$(( passed + ${p:-0} ))
  failed=$(( failed + ${f:-0} ))
  if [ "$rc" != 0 ]; then
    [ "${f:-0}" -gt 0 ] || failed=$(( failed + 1 ))
    say "FAILED: $1 (exit $rc)"
    return 1
  fi
}

# Builds both .deb packages and checks them; the amd64 one is installed, run and purged
# inside a private root (scripts/package-test.sh), never on this machine.
packages_built=0
stage_package() {
  step "packages" bash scripts/package.sh || return 1
  packages_built=1
  tallied scripts/package-test.sh
}

# The amd64 packages in a container booted with a real systemd (scripts/systemd-test.sh);
# built here unless the package stage of this run built them.
stage_systemd() {
  if [ "$packages_built" != 1 ]; then
    step "packages (amd64)" bash scripts/package.sh amd64 || return 1
  fi
  tallied scripts/systemd-test.sh
}

status=0
if ! bash scripts/setup.sh; then
  failed=$(( failed + 1 ))
  status=1
  say "scripts/setup.sh FAILED"
else
  for stage in "${stages[@]}"; do
    say "stage $stage"
    if "stage_$stage"; then
      say "stage $stage passed"
    else
      say "stage $stage FAILED"
      status=1
    fi
  done
fi
# The counts and the status must agree whatever went wrong where.
[ "$status" = 0 ] || [ "$failed" -gt 0 ] || failed=1
[ "$failed" = 0 ] || status=1
echo "test.sh: $passed passed, $failed failed"
exit "$status"
