#!/usr/bin/env bash
# Installs what is missing, builds the benchmarks in Release, makes the stores
# that are missing (1,000, 10,000 and 100,000 certificates, once; they stay in
# build-bench/stores), runs the paired benchmarks, the probe and the profiles,
# and writes bench/RESULTS.md (its hand-written notes section is kept).
# A profiler that is missing or not allowed here is skipped; its table says so.
#   scripts/bench.sh            the full run (about ten minutes on 2 cores)
#   scripts/bench.sh --quick    a store of 1,000 only, short runs: tries the chain and
#                               writes build-bench/results/RESULTS.md, not bench/RESULTS.md
set -euo pipefail
cd "$(dirname "$0")/.."

sizes=(1000 10000 100000)
creation_iterations=300
output=bench/RESULTS.md
if [ "${1:-}" = "--quick" ]; then
  sizes=(1000)
  creation_iterations=10
  output=build-bench/results/RESULTS.md
fi
size_list=$(IFS=,; echo "${sizes[*]}")
largest=${sizes[${#sizes[@]}-1]}
smallest=${sizes[0]}

scripts/setup.sh libbenchmark-dev libbotan-2-dev libgnutls28-dev valgrind strace python3 linux-perf time

build=build-bench
stores=$build/stores
results=$build/results
mkdir -p "$results"
rm -f "$results"/*

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVIK_CERTCACHE_BUILD_BENCH=ON \
  -DTAVIK_CERTCACHE_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j 2
"$build"/bench/tavik_bench_generate "$stores" "${sizes[@]}"
probe="$build/bench/tavik_bench_probe"

# The machine and the moment.
{
  echo "date=$(date -u '+%Y-%m-%d %H:%M UTC')"
  echo "cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')"
  echo "cores=$(nproc)"
  echo "memory=$(free -g | awk '/^Mem:/ {print $2}') GiB"
  echo "kernel=$(uname -r)"
  echo "compiler=$(c++ --version | head -1)"
  echo "openssl=$(openssl version)"
  echo "botan=$(dpkg-query -W -f='${Version}' libbotan-2-dev)"
  echo "gnutls=$(dpkg-query -W -f='${Version}' libgnutls28-dev)"
  echo "benchmark=$(dpkg-query -W -f='${Version}' libbenchmark-dev)"
  echo "commit=$(git rev-parse --short HEAD)$(git diff --quiet HEAD -- src bench || echo ' (with local changes)')"
  echo "load_before=$(cut -d' ' -f1-3 /proc/loadavg)"
} > "$results/machine.txt"

# Every benchmark is a paired run that alternates its two sides itself, so
# outside load on the shared cores falls on both alike.
"$build"/bench/tavik_certcache_bench --stores="$stores" --sizes="$size_list" \
  --creation-iterations="$creation_iterations" \
  --benchmark_out="$results/bench.json" --benchmark_out_format=json \
  2> "$results/bench-stderr.txt" | tee "$results/bench.txt"
echo "load_after=$(cut -d' ' -f1-3 /proc/loadavg)" >> "$results/machine.txt"

# Both sides of each creation pair must have made the same files.
scratch="$stores/scratch"
created=user/created_at_bench.example
{
  cmp -s "$scratch/selfsigned-cache/$created.key" "$scratch/selfsigned-bare/$created.key" &&
  cmp -s "$scratch/selfsigned-cache/$created.crt" "$scratch/selfsigned-bare/$created.crt" &&
  cmp -s "$scratch/csr-cache/$created.tpk" "$scratch/csr-bare/$created.tpk" &&
  echo "identical=yes" || echo "identical=no"
} > "$results/creation-files.txt"

# Peak resident memory of a process that opens the largest store, and of one
# that does everything else the same.
root="$stores/store-$largest"
"$probe" rss cache "$root" > "$results/rss-cache.txt"
"$probe" rss none "$root" > "$results/rss-none.txt"
# And of the tool listing it.
/usr/bin/time -o "$results/rss-list.txt" -f "peak_kib=%M" \
  "$build"/tools/certcache/certcache --store "$root" list > /dev/null

# The watcher, on a copy of the largest store (its modes add and rewrite pairs):
# a change's latency and CPU, memory against a cache's, readers beside a rotating writer.
copy="$build/watcher-store"
rm -rf "$copy" && cp -a "$root" "$copy"
watcher_probe="$build/bench/tavik_watcher_probe"
"$watcher_probe" rss cache "$copy" > "$results/watcher-rss-cache.txt"
"$watcher_probe" rss watcher "$copy" > "$results/watcher-rss-watcher.txt"
"$watcher_probe" change "$copy" "$build/tools/certcache/certcache" 20 > "$results/watcher-change.txt"
"$watcher_probe" rotate "$copy" 1000 8 > "$results/watcher-rotate.txt"
rm -rf "$copy"

# User and system CPU time of one opening, with the cache and the bare loop, each
# in a process of its own.
chain_store="$build/chain-store"
rm -rf "$chain_store"

# Revocation: a list of 100,000 revoked serials indexed once, a leaf checked
# against it (the root's key EC, then RSA), and `crl add` of the same list.
revocation_store="$build/revocation-store"
for key in ec rsa; do
  "$build"/bench/tavik_revocation_probe "$revocation_store" 100000 3000 "$key" \
    > "$results/revocation-$key.txt"
done
rm -rf "$revocation_store/crl"
/usr/bin/time -o "$results/revocation-add.txt" -f "crl_add_s=%e crl_add_peak_kib=%M" \
  "$build"/tools/certcache/certcache --store "$revocation_store" crl add "$revocation_store.crl" \
  > /dev/null
rm -rf "$revocation_store" "$revocation_store.crl"
"$build"/bench/tavik_chain_probe "$chain_store" 10000 2000 > "$results/chain.txt"
rm -rf "$chain_store"

for size in "${sizes[@]}"; do
  for round in 1 2 3; do
    "$probe" load cache "$stores/store-$size" >> "$results/cpu-cache-$size.txt"
    "$probe" load openssl "$stores/store-$size" >> "$results/cpu-openssl-$size.txt"
  done
done

# Instruction counts (callgrind) of the measured functions alone: opening the
# smallest store, and 20 lookups with key.
small="$stores/store-$smallest"
callgrind() {
  valgrind --tool=callgrind --toggle-collect='tavik::bench::measured*' \
    --callgrind-out-file="$results/callgrind-$1-$2.out" "$probe" "$1" "$2" "${@:3}" > /dev/null 2>&1
}
for side in cache openssl; do
  callgrind load "$side" "$small" && callgrind lookup "$side" "$small" "$smallest" 20 ||
    { echo "callgrind skipped" >&2; rm -f "$results"/callgrind-*; break; }
done
if [ -f "$results/callgrind-load-cache.out" ]; then
  callgrind_annotate "$results/callgrind-load-cache.out" \
    > "$results/callgrind-load-cache-self.txt" 2>/dev/null || true
fi

# System calls of one opening of the smallest store, with the cache and the bare loop.
for side in cache openssl; do
  strace -c -o "$results/strace-load-$side.txt" "$probe" load "$side" "$small" > /dev/null 2>&1 ||
    { echo "strace skipped" >&2; rm -f "$results"/strace-*; break; }
done

# Where the wall-clock time of opening the largest store goes, kernel included.
if perf record -q -F 2000 -o "$results/perf-load-cache.data" \
     "$probe" load cache "$root" > /dev/null 2>&1; then
  perf report -q -i "$results/perf-load-cache.data" --sort dso --stdio \
    > "$results/perf-load-cache-dso.txt" 2>/dev/null || true
  perf report -q -i "$results/perf-load-cache.data" --sort sym --stdio \
    > "$results/perf-load-cache-sym.txt" 2>/dev/null || true
fi

python3 bench/make_results.py "$results" "$size_list" "$output"
echo "Wrote $output"
