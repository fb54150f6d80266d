#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite twice:
# a normal build (build/) and an AddressSanitizer + UndefinedBehaviorSanitizer
# build (build-asan/) that stops at the first error.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKIVREG_SANITIZE=ON -DKIVREG_BUILD_BENCH=OFF
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1 \
UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  ctest --test-dir build-asan --output-on-failure -j "$jobs"
echo "All tests passed (normal and sanitizer builds)."
