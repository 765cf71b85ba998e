#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test through ctest.
#   scripts/test.sh             Debug build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
#   scripts/test.sh --tsan      ThreadSanitizer build in build-tsan/ (the store watcher's threads)
# Arguments after the mode go to ctest: scripts/test.sh --tsan -R Watch runs the watcher's tests.
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
cmake_flags=(-DCMAKE_BUILD_TYPE=Debug)
mode=${1:-}
case "$mode" in --sanitize|--tsan) shift ;; *) mode= ;; esac
if [ "$mode" = "--sanitize" ]; then
  build_dir=build-asan
  cmake_flags+=(-DTAVIK_CERTCACHE_SANITIZE=ON)
  export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1:abort_on_error=0:detect_stack_use_after_return=1"
  export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
elif [ "$mode" = "--tsan" ]; then
  build_dir=build-tsan
  cmake_flags+=(-DTAVIK_CERTCACHE_TSAN=ON)
  export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
fi

scripts/setup.sh
cmake -S . -B "$build_dir" "${cmake_flags[@]}"
cmake --build "$build_dir" -j "$(nproc)"
ctest --test-dir "$build_dir" --output-on-failure -j "$(nproc)" "$@"
