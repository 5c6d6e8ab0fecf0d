#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, address+undefined sanitizers) and
# fuzzes each for a bounded time, starting from its committed seeds.
#   scripts/fuzz.sh [SECONDS_PER_TARGET=60] [TARGET...]
# fuzz/<target>.dict, when present, names the tokens the target's parser looks for.
# New inputs go to build-fuzz/fuzz-work/<target>/ (the committed corpus is only read);
# a crashing input is written to build-fuzz/fuzz-artifacts/<target>/ and the script exits
# non-zero after trying every target. To guard a finding, copy its input into
# fuzz/corpus/<target>/, where the fuzz_replay.<target> test replays it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
jobs=${ORVEX_FUZZ_JOBS:-$(nproc)}

if [ "$#" -gt 0 ]; then
  targets=("$@")
else
  read -r -a targets <<<"$(sed -n '/^set(ORVEX_FUZZ_TARGETS/,/)/p' fuzz/targets.cmake |
    sed 's/set(ORVEX_FUZZ_TARGETS//; s/)//' | tr '\n' ' ')"
fi

cmake --preset fuzz >/dev/null
cmake --build build-fuzz -j"$jobs" --target $(printf 'fuzz_%s ' "${targets[@]}")

failed=()
for target in "${targets[@]}"; do
  work=build-fuzz/fuzz-work/$target
  artifacts=build-fuzz/fuzz-artifacts/$target
  mkdir -p "$work" "$artifacts"
  dict=()
  if [ -f "fuzz/$target.dict" ]; then
    dict=(-dict="fuzz/$target.dict")
  fi
  echo "== fuzz_$target for ${seconds}s"
  # detect_leaks stays on: a leak per input is a finding like any other.
  if ! build-fuzz/fuzz/fuzz_"$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2560 \
      -print_final_stats=1 "${dict[@]}" -artifact_prefix="$artifacts/" "$work" "fuzz/corpus/$target"; then
    failed+=("$target")
  fi
done

if [ "${#failed[@]}" -gt 0 ]; then
  echo "fuzz findings in: ${failed[*]} (inputs under build-fuzz/fuzz-artifacts/)" >&2
  exit 1
fi
echo "fuzzing clean: ${targets[*]}"
