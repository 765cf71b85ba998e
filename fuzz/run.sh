#!/usr/bin/env bash
# Builds the fuzz target with clang (libFuzzer, ASan + UBSan), makes its seeds,
# and fuzzes for the given seconds, starting from the seeds and from the
# inputs of earlier findings in fuzz/regressions/. A finding (crash, leak,
# sanitizer report, violated property, an input running over 10 s) fails the
# run and keeps its input in build-fuzz/findings/.
# Usage: fuzz/run.sh [SECONDS]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
build=build-fuzz
scripts/setup.sh clang libclang-rt-14-dev
CXX=clang++ cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)"
rm -rf "$build/corpus" "$build/work" && mkdir -p "$build/work" "$build/findings"
fuzz/make_corpora.sh "$build/corpus"
export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1" UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
if ! "$build/fuzz_cache" -max_total_time="${1:-60}" -timeout=10 -print_final_stats=1 \
     -artifact_prefix="$build/findings/" "$build/work" "$build/corpus" fuzz/regressions >"$build/fuzz.log" 2>&1; then
  grep -E 'ERROR|SUMMARY|property violated|Test unit written' "$build/fuzz.log" || tail -20 "$build/fuzz.log"
  echo "fuzzing: a finding (log: $build/fuzz.log)"
  exit 1
fi
grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)|cov: ' "$build/fuzz.log" | tail -4
echo "fuzzing: no findings"
