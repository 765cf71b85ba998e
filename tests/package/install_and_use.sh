#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, checks the README's embedding
# example is examples/embed_example.cpp, builds the examples (one also as a plugin)
# against the installed package alone with find_package() and runs them, and runs
# the installed tool. Only the public headers (and those they include) are installed.
# Then: the shared library's SONAME and exports, and the Debian package's contents.
# Usage: install_and_use.sh BUILD_DIR SOURCE_DIR [EXTRA_FLAGS]
set -euo pipefail
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
diff <(awk '/^<!-- examples\/embed_example.cpp -->$/ { marked = 1; next } marked && /^```cpp$/ { inside = 1; next }
            inside && /^```$/ { exit } inside { print }' "$2/README.md") "$2/examples/embed_example.cpp"
cmake --install "$1" --prefix "$prefix" >/dev/null
for file in bin/certcache include/tavik/crypto/certificatefilecache.h include/tavik/log/log.h \
            lib/cmake/tavik_certcache/tavik_certcacheConfig.cmake share/man/man1/certcache.1 \
            lib/pkgconfig/tavik_certcache.pc share/bash-completion/completions/certcache; do
  [ -e "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
for file in derreader.h certificatelayout.h filecontents.h filedescriptor.h pem.h pemfile.h; do
  [ ! -e "$prefix/include/tavik/base/$file" ] || { echo "internal, yet installed: $file"; exit 1; }
done
"$prefix/bin/certcache" --help >/dev/null
env CXXFLAGS= LDFLAGS= cmake -S "$2/tests/package" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DEXAMPLES="$2/examples" -DCMAKE_CXX_FLAGS="${3:-}" -DCMAKE_EXE_LINKER_FLAGS="${3:-}" \
  -DCMAKE_SHARED_LINKER_FLAGS="${3:-}" >/dev/null
if grep -rq -- "$2/src" "$scratch/build/CMakeFiles/embed_example.dir/flags.make"; then
  echo "the example was compiled against the source tree, not the installed headers" && exit 1
fi
cmake --build "$scratch/build" -j 2 >/dev/null
"$scratch/build/embed_example" "$scratch/store"
"$prefix/bin/certcache" --store "$scratch/mail" --passin pass:pw self-signed --email me@example.org >/dev/null
echo "Signed with the store's key" | "$scratch/build/cms_sign_example" "$scratch/mail" me@example.org pw >"$scratch/signed.eml"
openssl cms -verify -in "$scratch/signed.eml" -CAfile "$scratch/mail/user/me_at_example.org.crt" 2>/dev/null | grep "store's key" >/dev/null

# Shared: every strong definition exported is tavik's; weak and unique ones may also be what
# all users of the standard library and Boost emit alike (Boost.System's categories must stay one).
env CXXFLAGS= LDFLAGS= cmake -S "$2" -B "$scratch/so" -DBUILD_SHARED_LIBS=ON -DTAVIK_CERTCACHE_BUILD_TESTS=OFF -DTAVIK_CERTCACHE_BUILD_TOOLS=OFF -DTAVIK_CERTCACHE_INSTALL=OFF >/dev/null
cmake --build "$scratch/so" -j 2 --target tavik_certcache >/dev/null
readelf -d "$scratch/so/libtavik_certcache.so.0.1.0" | grep 'SONAME.*\[libtavik_certcache\.so\.0\]' >/dev/null || { echo "SONAME wrong"; exit 1; }
nm -D --defined-only "$scratch/so/libtavik_certcache.so" | c++filt | awk '{ type = $2; $1 = $2 = ""; match($0, /[A-Za-z_0-9]+::|operator (new|delete)\(/)
  ns = substr($0, RSTART, RLENGTH); if (ns != "tavik::" && (type ~ /[TDBR]/ || ns !~ /^(std::|__gnu_cxx::|boost::|operator)/)) { print "exported:" $0; bad = 1 } }
  END { exit bad }'
# The Debian package of this build tree, and a program built with pkg-config from its files alone.
cpack -G DEB --config "$1/CPackConfig.cmake" -B "$scratch/deb" >/dev/null; deb=$(echo "$scratch"/deb/tavik-certcache_*.deb)
dpkg-deb -c "$deb" >"$scratch/contents"; dpkg-deb -x "$deb" "$scratch/root"; dpkg-deb -f "$deb" Depends | grep -q libssl3
for file in lib/libtavik_certcache include/tavik/crypto/certificatefilecache.h bin/certcache share/man/man1/certcache.1 share/bash-completion/completions/certcache; do
  grep -q " \./usr/$file" "$scratch/contents" || { echo "not in the package: $file"; exit 1; }; done
c++ -std=c++17 ${3:-} "$2/examples/embed_example.cpp" -o "$scratch/pc" $(PKG_CONFIG_PATH="$scratch/root/usr/lib/pkgconfig" pkg-config --cflags --libs tavik_certcache)
"$scratch/pc" "$scratch/pc-store" && echo "installed, shared and packaged library all work"
