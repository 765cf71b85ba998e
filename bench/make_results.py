#!/usr/bin/env python3
"""Writes RESULTS.md, tables only, from what scripts/bench.sh leaves in its results directory.
What the figures mean is written by hand under "## Notes (hand-written)", kept on every rewrite.
usage: make_results.py RESULTS_DIR SIZES OUTPUT   (SIZES: comma-separated, as measured)
"""
import json, os, re, sys

results, sizes, output = sys.argv[1], [int(s) for s in sys.argv[2].split(",")], sys.argv[3]
small, large = sizes[0], sizes[-1]
NOTES = "## Notes (hand-written)"
out = ["# Benchmark results", "", "Written by `scripts/bench.sh` from one run; every figure comes from it.", ""]

def read(name):
    path = os.path.join(results, name)
    return open(path).read() if os.path.exists(path) else ""

def fields(text):
    return dict(re.findall(r"(\w+)=(\S+)", text))

def section(title, *lines):
    out.extend(["## " + title, ""] + list(lines) + ([""] if lines else []))

def table(header, rows):
    if not rows:
        out.extend(["Not measured in this run.", ""])
        return
    out.extend(["| " + " | ".join(header) + " |", "|---|" + "---:|" * (len(header) - 1)])
    out.extend(["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows] + [""])

def div(a, b):
    return None if a is None or not b else a / b

def t(seconds):
    if seconds is None:
        return "n/a"
    for unit, scale, digits in (("s", 1, 2), ("ms", 1e-3, 1), ("µs", 1e-6, 1)):
        if seconds >= scale:
            return "%.*f %s" % (digits, seconds / scale, unit)
    return "%.0f ns" % (seconds * 1e9)

def short(name):  # the end of a long C++ name is the function's own
    return name if len(name) <= 70 else "…" + name[-69:]

def r(value, digits=3):
    return "n/a" if value is None else "%.*f" % (digits, value)

# Every benchmark is a paired run: ours_us and theirs_us per unit, ratio = ours / theirs.
pairs, failed = {}, {}
for run in json.loads(read("bench.json") or '{"benchmarks": []}')["benchmarks"]:
    name = run["run_name"].split("/iterations")[0]
    if run.get("error_occurred"):
        failed[name] = run.get("error_message", "")
    else:
        pairs[name] = run

def pair(name, key):
    return pairs.get(name, {}).get(key)

def pair_rows(named):
    return [(label, t(div(pair(n, "ours_us"), 1e6)), t(div(pair(n, "theirs_us"), 1e6)), r(pair(n, "ratio")),
             r(div(1, pair(n, "ratio")), 1), r(pair(n, "wall_ratio")), "%d" % pair(n, "rounds"))
            for n, label in named if n in pairs]

PAIR_HEADER = ["comparison", "ours", "theirs", "ours / theirs", "theirs / ours", "wall-clock ours / theirs", "rounds"]
section("Machine")
table(["", ""], [line.split("=", 1) for line in read("machine.txt").splitlines() if "=" in line])

section("Paired comparisons", "Ours against the bare OpenSSL steps in alternating rounds: thread CPU time of the "
        "median round, per certificate (opening) or per call; ratios are medians of the per-round ratios.")
table(PAIR_HEADER, pair_rows([("Pair/Load/%d" % n, "opening a key-holding cache, N = %d" % n) for n in sizes]
                             + [("Pair/Lookup/%d" % n, "getCertificate with key, N = %d" % n) for n in sizes]
                             + [("Pair/SelfSigned", "createSelfSignedKeyPair"), ("Pair/Csr", "createCsr")]))
identical = fields(read("creation-files.txt")).get("identical", "n/a")
out.extend(["Files of the last creation identical on both sides: %s" % identical, ""])

section("Lookups with profile key files", "getCertificate with key over the first four certificates of the store of %d "
        "(its RSA 1024 keys), their key files written anew by `writePrivateKey`: with a profile, AES-256-CBC and "
        "PBKDF2-HMAC-SHA256 at the iterations shown (ours), against the original key files, Triple-DES and PBKDF2 at "
        "OpenSSL's default 2048 iterations (theirs). Paired as above; per lookup." % small)
table(["profile key files"] + PAIR_HEADER[1:4] + PAIR_HEADER[5:],  # theirs / ours would round to 0.0
      [row[:4] + row[5:] for row in
       pair_rows([("Pair/LookupKdf/%d" % i, "kdfIterations = {:,}".format(i)) for i in (100000, 10000)])])

def own_process(side, n):  # (user, system, total) CPU seconds per certificate of the probe's median run
    runs = [fields(line) for line in read("cpu-%s-%d.txt" % (side, n)).splitlines() if "user_ms" in line]
    runs = sorted(([float(x["user_ms"]) * 1e-3 / n, float(x["system_ms"]) * 1e-3 / n] for x in runs), key=sum)
    return runs[len(runs) // 2] + [sum(runs[len(runs) // 2])] if runs else None

section("Opening, per certificate", "Paired rounds as above, and one opening in a process of its own "
        "(user + system CPU time of the probe's median run).")
raw = {n: [div(pair("Pair/Load/%d" % n, "ours_us"), 1e6), div(pair("Pair/Load/%d" % n, "theirs_us"), 1e6),
           own_process("cache", n), own_process("openssl", n)] for n in sizes}
rows = [[n, t(v[0]), t(v[1])] + ["n/a" if c is None else "%s (%s user, %s system)" % (t(c[2]), t(c[0]), t(c[1]))
                                  for c in v[2:]] for n, v in raw.items()]
totals = {n: v[:2] + [c[2] if c else None for c in v[2:]] for n, v in raw.items()}
if small != large:
    rows.append(["growth %d → %d" % (small, large)] + [r(div(a, b), 2) for a, b in zip(totals[large], totals[small])])
table(["N", "cache, paired", "bare OpenSSL, paired", "cache, own process", "bare OpenSSL, own process"], rows)

section("Peers opening the same store", "Each peer paired with the cache's opening as above; per certificate.")
peers = [("BotanStore", "Botan 2 in-memory store"), ("BotanLoop", "Botan 2 loop doing the cache's job"),
         ("GnuTLS", "GnuTLS trust list")]
table(["cache against"] + PAIR_HEADER[1:],
      pair_rows([("Peer/%s/%d" % (p, n), "%s, N = %d" % (label, n)) for n in sizes for p, label in peers]))

section("Peak resident memory", "Processes over the store of %d: one opening a key-holding cache, one doing the rest alike, and the tool listing it." % large)
rss, none, rows = fields(read("rss-cache.txt")), fields(read("rss-none.txt")), []
if rss and none:
    entries, peak, base = int(rss["entries"]), int(rss["peak_kib"]), int(rss["baseline_kib"])
    rows = [("with the cache", entries, "%.1f MiB" % (peak / 1024), "%.0f bytes" % ((peak - base) * 1024 / entries)),
            ("without", 0, "%.1f MiB" % (int(none["peak_kib"]) / 1024), "")]
    listing = fields(read("rss-list.txt"))
    if listing:
        rows.append(("`certcache list`", entries, "%.1f MiB" % (int(listing["peak_kib"]) / 1024), ""))
table(["process", "entries", "peak resident", "added by the cache, per entry"], rows)

def syscalls(side):  # calls by name, and "total", from strace -c
    return {p[-1]: int(p[3]) for p in map(str.split, read("strace-load-%s.txt" % side).splitlines())
            if len(p) >= 5 and p[3].isdigit()}

chain = fields(read("chain.txt"))
section("Chains", "tavik_chain_probe: a `ca` directory of %s authorities (a root, its intermediate, "
        "the rest unrelated), indexed once by CertificateChain; then the chain of a leaf issued by "
        "the intermediate (3 certificates) built %s times." % (chain.get("authorities", "?"),
                                                             chain.get("calls", "?")))
table(["authorities", "indexing (CPU)", "chain length", "one chain, median", "one chain, 99th percentile"],
      [(chain["authorities"], "%s ms" % chain["index_cpu_ms"], chain["chain_length"],
        "%s µs" % chain["build_median_us"], "%s µs" % chain["build_p99_us"])] if chain else [])

revocation = [fields(read("revocation-%s.txt" % key)) for key in ("ec", "rsa")]
revocation = [r for r in revocation if r]
added = fields(read("revocation-add.txt"))
section("Revocation", "tavik_revocation_probe: a root authority's list of %s revoked serials (%s bytes) "
        "in a store, indexed once by RevocationLists; then a leaf the root issued checked against it, "
        "per check the median of 15 rounds. The last check column uses an index made without the "
        "authorities, where OpenSSL verifies the list's signature on every check. `crl add` of the same "
        "list (RSA root), wall-clock: %s s, peak resident %s KiB." % (
            revocation[0].get("entries", "?") if revocation else "?",
            revocation[0].get("list_bytes", "?") if revocation else "?",
            added.get("crl_add_s", "?"), added.get("crl_add_peak_kib", "?")))
table(["root key", "indexing", "check, leaf", "check, whole path", "check, revoked leaf",
       "check, signature verified each time"],
      [("EC P-256" if r["key"] == "ec" else "RSA 2048", "%s ms" % r["index_ms"], "%s µs" % r["check_leaf_us"],
        "%s µs" % r["check_all_us"], "%s µs" % r["check_revoked_leaf_us"],
        "%s µs" % r["check_unverified_us"]) for r in revocation])

section("System calls of one opening", "strace -c of one opening of the store of %d, start-up included." % small)
cache_calls, bare_calls = syscalls("cache"), syscalls("openssl")
top = sorted(set(cache_calls) | set(bare_calls), key=lambda k: (-cache_calls.get(k, 0) - bare_calls.get(k, 0), k))
table(["calls per certificate", "cache", "bare OpenSSL loop"],
      [(k, r(cache_calls.get(k, 0) / small, 2), r(bare_calls.get(k, 0) / small, 2)) for k in top[:8]]
      if cache_calls and bare_calls else [])

def instructions(name):
    found = re.search(r"^(?:summary|totals):\s+(\d+)", read(name), re.M)
    return int(found.group(1)) if found else None

section("Instructions (callgrind)", "Measured functions alone: opening the store of %d; 20 lookups in it." % small)
rows = []
for what, units, label in (("load", small, "opening, per certificate"), ("lookup", 20, "lookup with key")):
    ours, bare = instructions("callgrind-%s-cache.out" % what), instructions("callgrind-%s-openssl.out" % what)
    if ours and bare:
        rows.append((label, "%.1f k" % (ours / units / 1e3), "%.1f k" % (bare / units / 1e3), r(bare / ours, 4)))
table(["", "cache", "bare OpenSSL", "bare / cache"], rows)
functions = re.findall(r"^\s*([\d,]+) \(\s*([\d.]+)%\)\s+(\S.*)$", read("callgrind-load-cache-self.txt"), re.M)
table(["cache's opening: top functions by own instructions", "per certificate", "share"],
      [("`%s`" % short(name.partition(":")[2].split("(")[0].split(" [")[0]),
        "%.1f k" % (int(count.replace(",", "")) / small / 1e3), share + "%")
       for count, share, name in functions if "PROGRAM TOTALS" not in name][:10])

section("Where the time of opening the store of %d goes (perf)" % large)
libraries = re.findall(r"^\s*([\d.]+%)\s+(\S+)", read("perf-load-cache-dso.txt"), re.M)
table(["library", "share of samples"], [(where, share) for share, where in libraries[:8]])
symbols = re.findall(r"^\s*([\d.]+%)\s+\[(.)\]\s+(.+)$", read("perf-load-cache-sym.txt"), re.M)
table(["symbol ([k] kernel)", "share of samples"],
      [("`%s` [%s]" % (short(s.strip()), k), p) for p, k, s in symbols[:12]])

if failed:
    section("Benchmarks that failed", *("- %s: %s" % item for item in sorted(failed.items())))

previous = open(output).read() if os.path.exists(output) else ""
notes = previous[previous.index(NOTES):] if NOTES in previous else (
    NOTES + "\n\nThis section is written by hand; scripts/bench.sh keeps it as it is.\n")
with open(output, "w") as f:
    f.write("\n".join(out) + "\n" + notes)
