#!/usr/bin/env python3
"""Two certcache binaries, before and after a change, run alternately on the same commands.

Usage: bench/tool_pairs.py BEFORE AFTER [ROUNDS]   (run by hand; prints table rows)

Each command runs ROUNDS times with each binary (the order flips every round, so that
outside load on shared cores falls on both alike), after one warm-up run of each that is
left out. A row gives the median user + system CPU time of each side, their ratio, the
median of the per-round ratios, and the median wall-clock times. The stores are made in a
scratch directory by AFTER: an RSA 3072 pair (the default profile) and an EC P-256 one,
their key files at 100,000 PBKDF2 iterations.
"""
import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time


def run(binary, args):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.perf_counter()
    subprocess.run([binary] + args, stdout=subprocess.DEVNULL, check=True)
    wall = time.perf_counter() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return wall, (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)


def main():
    before, after = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 41
    os.chdir(tempfile.mkdtemp(prefix="tool-pairs-"))
    with open("pw", "w") as f:
        f.write("Correct-Horse-Battery-Staple-4711\n")
    pw = ["--passin", "file:pw"]
    run(after, ["--store", "s"] + pw + ["self-signed", "--email", "r@x"])
    run(after, ["--store", "s"] + pw + ["self-signed", "--key", "ec:P-256", "--email", "e@x"])
    run(after, ["--store", "s"] + pw + ["export", "e@x", "--out", "e.p12"])
    commands = {
        "show --passin (RSA 3072)": ["--store", "s"] + pw + ["show", "r@x"],
        "show --passin (EC P-256)": ["--store", "s"] + pw + ["show", "e@x"],
        "export (EC P-256)": ["--store", "s"] + pw + ["export", "e@x", "--out", "x.p12"],
        "import (EC P-256)": ["--store", "i"] + pw + ["import", "--overwrite", "e.p12"],
        "self-signed (EC P-256)": ["--store", "w"] + pw
        + ["self-signed", "--overwrite", "--key", "ec:P-256", "--email", "w@x"],
        "list": ["--store", "s", "list"],
    }
    print("load average before:", " ".join(open("/proc/loadavg").read().split()[:3]))
    for name, args in commands.items():
        times = {before: [], after: []}
        for binary in (before, after):
            run(binary, args)
        for i in range(rounds):
            for binary in (before, after) if i % 2 == 0 else (after, before):
                times[binary].append(run(binary, args))
        cpu = {b: statistics.median(t[1] for t in times[b]) for b in times}
        wall = {b: statistics.median(t[0] for t in times[b]) for b in times}
        paired = statistics.median(a[1] / b[1] for a, b in zip(times[after], times[before]))
        print(f"| {name} | {cpu[before] * 1e3:.1f} ms | {cpu[after] * 1e3:.1f} ms | "
              f"{cpu[after] / cpu[before]:.3f} | {paired:.3f} | {wall[before] * 1e3:.1f} ms | "
              f"{wall[after] * 1e3:.1f} ms | {rounds} |")
    print("load average after:", " ".join(open("/proc/loadavg").read().split()[:3]))


if __name__ == "__main__":
    main()
