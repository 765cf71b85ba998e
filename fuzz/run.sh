#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer), generates their seed corpora, and runs each
# target for the given number of seconds. Any finding (crash, leak, sanitizer
# report, violated property, an input running over 10 s) fails the run; its
# input is kept in build-fuzz/findings/. Prints executions and coverage per
# target, also kept in build-fuzz/fuzz-summary.txt.
# Usage: fuzz/run.sh [SECONDS_PER_TARGET]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build-fuzz

scripts/setup.sh clang libclang-rt-14-dev
CXX=clang++ cmake -S fuzz -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)"

fuzz/make_corpora.sh "$build/corpus" >/dev/null
mkdir -p "$build/findings"
export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"

targets=(fuzz_certificate_base64 fuzz_certificate_file fuzz_certificate_with_key
         fuzz_filename_encoding fuzz_cache_store)
summary="$build/fuzz-summary.txt"
printf '%-28s %10s %8s %17s %8s\n' target executions seconds 'edges (of total)' features \
  >"$summary"
failed=0
for target in "${targets[@]}"; do
  # A fresh working corpus each run: the figures are those of this run alone.
  work="$build/work/$target"
  rm -rf "$work" && mkdir -p "$work"
  log="$build/$target.log"
  status=0
  # Inputs of earlier findings stay in the seeds, so that they are tried first.
  seeds=("$build/corpus/$target")
  [ -d "fuzz/regressions/$target" ] && seeds+=("fuzz/regressions/$target")
  "$build/$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$build/findings/$target-" "$work" "${seeds[@]}" >"$log" 2>&1 ||
    status=$?
  runs=$(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) second.*/\1/p' "$log" || true)
  took=$(sed -n 's/^Done \([0-9]*\) runs in \([0-9]*\) second.*/\2/p' "$log" || true)
  coverage=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2 || true)
  features=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2 || true)
  edges=$(sed -n 's/.*(\([0-9]*\) inline 8-bit counters).*/\1/p' "$log" | head -1 || true)
  printf '%-28s %10s %8s %17s %8s\n' "$target" "${runs:-?}" "${took:-?}" \
    "${coverage:-?} (${edges:-?})" "${features:-?}" >>"$summary"
  if [ "$status" -ne 0 ]; then
    echo "FINDING in $target (exit $status); log: $log"
    grep -E 'ERROR|SUMMARY|property violated|Test unit written' "$log" || tail -20 "$log"
    failed=1
  fi
done
cat "$summary"
[ "$failed" -eq 0 ] && echo "fuzzing: no findings"
exit "$failed"
