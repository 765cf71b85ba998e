#!/usr/bin/env bash
# The README's embedding example must be the file that the package test
# compiles: the cpp block after the marker line naming the file.
# Usage: readme_matches_example.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
block=$(awk '/^<!-- examples\/embed_example.cpp -->$/ { marked = 1; next }
             marked && /^```cpp$/ { inside = 1; next }
             inside && /^```$/ { exit }
             inside { print }' "$source_dir/README.md")
if [ -z "$block" ]; then
  echo "README.md has no cpp block after <!-- examples/embed_example.cpp -->"
  exit 1
fi
diff <(printf '%s\n' "$block") "$source_dir/examples/embed_example.cpp"
