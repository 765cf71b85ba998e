#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, checks the README's embedding
# example is examples/embed_example.cpp, builds it against the installed
# package alone with find_package() and runs it, and runs the installed tool.
# Only the public headers (and those they include) are installed.
# Usage: install_and_use.sh BUILD_DIR SOURCE_DIR [EXTRA_FLAGS]
set -euo pipefail
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
diff <(awk '/^<!-- examples\/embed_example.cpp -->$/ { marked = 1; next } marked && /^```cpp$/ { inside = 1; next }
            inside && /^```$/ { exit } inside { print }' "$2/README.md") "$2/examples/embed_example.cpp"
cmake --install "$1" --prefix "$prefix" >/dev/null
for file in bin/certcache include/tavik/crypto/certificatefilecache.h include/tavik/log/log.h \
            lib/cmake/tavik_certcache/tavik_certcacheConfig.cmake share/man/man1/certcache.1 \
            share/bash-completion/completions/certcache; do
  [ -e "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
for file in derreader.h certificatelayout.h filecontents.h filedescriptor.h pem.h pemfile.h; do
  [ ! -e "$prefix/include/tavik/base/$file" ] || { echo "internal, yet installed: $file"; exit 1; }
done
"$prefix/bin/certcache" --help >/dev/null
env CXXFLAGS= LDFLAGS= cmake -S "$2/tests/package" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DEMBED_EXAMPLE="$2/examples/embed_example.cpp" -DCMAKE_CXX_FLAGS="${3:-}" -DCMAKE_EXE_LINKER_FLAGS="${3:-}" >/dev/null
if grep -rq -- "$2/src" "$scratch/build/CMakeFiles/embed_example.dir/flags.make"; then
  echo "the example was compiled against the source tree, not the installed headers" && exit 1
fi
cmake --build "$scratch/build" -j 2 >/dev/null
"$scratch/build/embed_example" "$scratch/store"
