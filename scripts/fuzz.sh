#!/usr/bin/env bash
# Fuzzing campaigns. Builds the targets of tests/fuzz with clang and libFuzzer
# under AddressSanitizer and UndefinedBehaviorSanitizer (build-fuzz/), then
# runs TARGET (all of them by default, one after another) for SECONDS seconds
# each (default 60), or for FUZZ_RUNS executions when that is set. Each target
# starts from tests/fuzz/corpus/<target>; what it finds new is kept in
# build-fuzz/corpus/<target>, crash files in build-fuzz/crashes/<target>.
# FUZZ_JOBS=N runs N processes side by side that share the corpus, each with
# its share of FUZZ_RUNS. Not part of the test command.
#
#   scripts/fuzz.sh [TARGET] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
targets=(document symbols secstore http_response url args getpass spool)
[ $# -ge 1 ] && [ "$1" != all ] && targets=("$1")
seconds=${2:-60}

scripts/deps.sh clang-16 libclang-rt-16-dev libfuzzer-16-dev
CC=clang-16 CXX=clang++-16 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKIVREG_FUZZ=ON -DKIVREG_SANITIZE=ON -DKIVREG_WERROR=OFF -DKIVREG_BUILD_TESTS=OFF \
  -DKIVREG_BUILD_BENCH=OFF
cmake --build build-fuzz -j "$(nproc)" --target "${targets[@]/#/kivreg_fuzz_}"

# Targets write their inputs to files: memory is faster than a disk.
[ -z "${TMPDIR:-}" ] && [ -w /dev/shm ] && export TMPDIR=/dev/shm
export ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
status=0
jobs=${FUZZ_JOBS:-1} root=$PWD
for t in "${targets[@]}"; do
  corpus=$root/build-fuzz/corpus/$t crashes=$root/build-fuzz/crashes/$t logs=$root/build-fuzz/logs/$t
  rm -rf "$logs"
  mkdir -p "$corpus" "$crashes" "$logs"
  before=$(find "$corpus" -type f | wc -l)
  limit=(-max_total_time="$seconds")
  [ -n "${FUZZ_RUNS:-}" ] && limit=(-runs="$((FUZZ_RUNS / jobs))")
  parallel=()
  ((jobs > 1)) && parallel=(-jobs="$jobs" -workers="$jobs")
  rc=0
  # Side by side, libFuzzer writes one fuzz-<job>.log per job where it runs.
  (cd "$logs" && "$root/build-fuzz/kivreg_fuzz_$t" "${limit[@]}" "${parallel[@]}" -timeout=25 \
    -rss_limit_mb=4096 -artifact_prefix="$crashes/" "$corpus" "$root/tests/fuzz/corpus/$t" \
    >"$( ((jobs > 1)) && echo jobs.log || echo fuzz-0.log)" 2>&1) || rc=$?
  runs=0
  for log in "$logs"/fuzz-*.log; do
    n=$(grep -Eo '^Done [0-9]+ runs' "$log" | grep -Eo '[0-9]+' || true)
    [ -z "$n" ] && n=$(grep -Eo '^#[0-9]+' "$log" | tail -1 | tr -d '#')
    runs=$((runs + ${n:-0}))
  done
  found=$(find "$crashes" -type f | sort)
  echo "$t: ${runs:-0} executions, $(($(find "$corpus" -type f | wc -l) - before)) new corpus" \
    "entries, crash files: ${found:-none}"
  if [ "$rc" -ne 0 ]; then
    status=1
    echo "  $t stopped with status $rc; see $logs"
  fi
done
exit "$status"
