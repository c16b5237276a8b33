#!/usr/bin/env bash
# Sets everything up and passes the tests: the suite runs twice, once as
# built for use (g++) and once under AddressSanitizer and
# UndefinedBehaviorSanitizer (clang), and then each fuzz target for a while.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
jobs=${JOBS:-2}

echo "== build (g++, RelWithDebInfo)"
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=g++ >/dev/null
cmake --build build -j"$jobs"
echo "== tests"
ctest --test-dir build --output-on-failure -j"$jobs"

echo "== build (clang, AddressSanitizer + UndefinedBehaviorSanitizer)"
cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DQVXML_SANITIZE=ON -DQVXML_BUILD_FUZZ=ON -DQVXML_BUILD_BENCH=OFF >/dev/null
cmake --build build-asan -j"$jobs"
echo "== tests under the sanitizers"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"
echo "== fuzzing, ${FUZZ_SECONDS:-12} s a target"
scripts/fuzz.sh -t "${FUZZ_SECONDS:-12}" -b build-asan
echo "All tests passed."
