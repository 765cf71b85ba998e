#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and builds the README's
# embedding example against it with find_package(), then runs the example and
# the installed tool.
# Usage: install_and_use.sh BUILD_DIR SOURCE_DIR [EXTRA_FLAGS]
set -euo pipefail
build_dir=$1
source_dir=$2
flags=${3:-}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

cmake --install "$build_dir" --prefix "$prefix" >/dev/null
for file in bin/certcache include/tavik/crypto/certificatefilecache.h \
            include/tavik/base/certificate.h include/tavik/log/log.h \
            lib/cmake/tavik_certcache/tavik_certcacheConfig.cmake; do
  [ -e "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
"$prefix/bin/certcache" --help >/dev/null

# Only the installed prefix may be found: not the source or build tree.
env CXXFLAGS= LDFLAGS= cmake -S "$source_dir/tests/package" -B "$scratch/build" \
  -DCMAKE_PREFIX_PATH="$prefix" -DEMBED_EXAMPLE="$source_dir/examples/embed_example.cpp" \
  -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
if grep -rq -- "$source_dir/src" "$scratch/build/CMakeFiles/embed_example.dir/flags.make"; then
  echo "the example was compiled against the source tree, not the installed headers"
  exit 1
fi
cmake --build "$scratch/build" -j 2 >/dev/null
"$scratch/build/embed_example" "$scratch/store"
