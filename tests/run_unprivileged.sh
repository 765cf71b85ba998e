#!/usr/bin/env bash
# Runs the tests whose names hold "Unprivileged" as a user whom the file system
# can refuse: as root, a copy of the binary runs as nobody. Fails when none ran
# or any was skipped, so that the refusals are real.
# Usage: run_unprivileged.sh TEST_BINARY
set -euo pipefail
run=("$1")
if [ "$(id -u)" -eq 0 ]; then
  scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT
  cp "$1" "$scratch/tests" && mkdir "$scratch/tmp" && chown 65534:65534 "$scratch/tmp" && chmod 755 "$scratch"
  run=(setpriv --reuid=65534 --regid=65534 --clear-groups env TMPDIR="$scratch/tmp" "$scratch/tests")
fi
output=$("${run[@]}" --gtest_filter='*Unprivileged*' 2>&1) || { printf '%s\n' "$output"; exit 1; }
printf '%s\n' "$output"
grep -qE '^\[  PASSED  \] [1-9][0-9]* test' <<<"$output" && ! grep -q '^\[  SKIPPED \]' <<<"$output"
