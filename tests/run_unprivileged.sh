#!/usr/bin/env bash
# Runs the tests whose names hold "Unprivileged" as a user whom the file system
# can refuse. As root, the binary is copied where nobody can reach it and run
# as nobody; as anyone else, it runs as it is.
# Usage: run_unprivileged.sh TEST_BINARY
set -euo pipefail
binary=$1
filter='*Unprivileged*'
# A filter that matches nothing, or tests that skip, must not pass for a run.
check() {
  local output
  output=$("$@" --gtest_filter="$filter" 2>&1) || { printf '%s\n' "$output"; return 1; }
  printf '%s\n' "$output"
  grep -qE '^\[  PASSED  \] [1-9][0-9]* test' <<<"$output" && ! grep -q '^\[  SKIPPED \]' <<<"$output"
}
if [ "$(id -u)" -ne 0 ]; then
  check "$binary"
  exit
fi
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
chmod 755 "$scratch"
cp "$binary" "$scratch/tests"
chmod 755 "$scratch/tests"
mkdir "$scratch/tmp" && chown 65534:65534 "$scratch/tmp"
check setpriv --reuid=65534 --regid=65534 --clear-groups \
  env TMPDIR="$scratch/tmp" HOME="$scratch/tmp" "$scratch/tests"
