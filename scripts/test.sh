#!/usr/bin/env bash
# The test command: install dependencies, build, run every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs"
ctest --test-dir build -j"$jobs" --output-on-failure --timeout 600
