#!/usr/bin/env python3
"""Runs the allocator workloads side by side and prints their throughput,
peak resident memory and the memory manager's ratios to its peers.

Every (allocator, workload) pair runs in a process of its own, so that its
peak resident set (VmHWM, which the benchmark prints at exit) is the
workload's alone. A round
runs every allocator once over every workload; the allocators' order rotates
from round to round, so that no allocator always runs first or last on a
warming or cooling machine. The figures are medians over the rounds.

Usage: run_memory_bench.py BENCH_MALLOC BENCH_QKMALLOC LIBQKMALLOC OUTDIR
Environment: QK_BENCH_ROUNDS (default 5), QK_BENCH_MIN_TIME (default 0.3),
QK_BENCH_FILTER (a regular expression of workloads to run).
"""
import json
import os
import re
import statistics
import subprocess
import sys

WORKLOADS = [
    "Pairs",
    "Batch/real_time/threads:1",
    "Batch/real_time/threads:2",
    "Larson/real_time/threads:2",
    "ProducerConsumer/real_time/threads:2",
    "Large",
    "Control/real_time/threads:1",
    "Control/real_time/threads:2",
]
PEERS = ["glibc", "jemalloc", "mimalloc", "tcmalloc"]
OURS = ["qkmalloc-shim", "qkMalloc-direct"]


def allocators(plain, direct, shim):
    arch = subprocess.run(["gcc", "-print-multiarch"], capture_output=True,
                          text=True).stdout.strip() or "x86_64-linux-gnu"
    lib = "/usr/lib/" + arch
    return {
        "glibc": (plain, None),
        "jemalloc": (plain, lib + "/libjemalloc.so.2"),
        "mimalloc": (plain, lib + "/libmimalloc.so.2"),
        "tcmalloc": (plain, lib + "/libtcmalloc_minimal.so.4"),
        "qkmalloc-shim": (plain, shim),
        "qkMalloc-direct": (direct, None),
    }


def run_one(binary, preload, workload, min_time, out_json):
    """Throughput (items per second) and peak resident memory (KiB)."""
    env = dict(os.environ)
    env.pop("LD_PRELOAD", None)
    if preload:
        env["LD_PRELOAD"] = preload
    args = [binary, "--benchmark_filter=^%s$" % re.escape(workload),
            "--benchmark_min_time=%s" % min_time, "--benchmark_format=json",
            "--benchmark_out=" + out_json, "--benchmark_out_format=json"]
    child = subprocess.run(args, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                           text=True)
    peak = re.search(r"^peak_resident_kib (\d+)$", child.stderr, re.M)
    if child.returncode != 0 or not peak:
        raise SystemExit("%s failed on %s (status %d)\n%s"
                         % (binary, workload, child.returncode, child.stderr))
    with open(out_json) as f:
        result = json.load(f)["benchmarks"][0]
    return result["items_per_second"], int(peak.group(1))


def main():
    plain, direct, shim, out = sys.argv[1:5]
    rounds = int(os.environ.get("QK_BENCH_ROUNDS", "5"))
    min_time = os.environ.get("QK_BENCH_MIN_TIME", "0.3")
    wanted = re.compile(os.environ.get("QK_BENCH_FILTER", "."))
    workloads = [w for w in WORKLOADS if wanted.search(w)]
    table = allocators(plain, direct, shim)
    names = PEERS + OURS
    os.makedirs(out, exist_ok=True)
    speed = {(n, w): [] for n in names for w in workloads}
    memory = {(n, w): [] for n in names for w in workloads}
    for r in range(rounds):
        order = names[r % len(names):] + names[:r % len(names)]
        print("round %d of %d: %s" % (r + 1, rounds, ", ".join(order)), file=sys.stderr)
        for name in order:
            binary, preload = table[name]
            for w in workloads:
                ops, rss = run_one(binary, preload, w, min_time,
                                   os.path.join(out, "last.json"))
                speed[name, w].append(ops / 1e6)
                memory[name, w].append(rss / 1024.0)
    mops = {k: statistics.median(v) for k, v in speed.items()}
    mib = {k: statistics.median(v) for k, v in memory.items()}
    report(workloads, names, mops, mib, rounds)
    with open(os.path.join(out, "medians.json"), "w") as f:
        json.dump({"mops": {"%s|%s" % k: v for k, v in mops.items()},
                   "peak_mib": {"%s|%s" % k: v for k, v in mib.items()}}, f, indent=1)


def per_allocator(workloads, names, figures):
    """A table of one figure per workload (row) and allocator (column)."""
    print("| workload | " + " | ".join(names) + " |")
    print("|---|" + "---:|" * len(names))
    for w in workloads:
        print("| %s | %s |" % (w, " | ".join("%.1f" % figures[n, w] for n in names)))


def report(workloads, names, mops, mib, rounds):
    print("Throughput, million allocations+releases per second (median of %d rounds):"
          % rounds)
    print()
    per_allocator(workloads, names, mops)
    print()
    print("The manager's throughput against the best peer and against glibc"
          " (above 1: the manager is faster), and its peak resident memory"
          " against glibc's (below 1: it holds less):")
    print()
    print("| workload | best peer | " + " | ".join(
        "%s / best | %s / glibc | %s peak / glibc peak" % (o, o, o) for o in OURS) + " |")
    print("|---|---|" + "---:|" * (3 * len(OURS)))
    for w in workloads:
        best = max(PEERS, key=lambda p: mops[p, w])
        cells = []
        for o in OURS:
            cells.append("%.2f" % (mops[o, w] / mops[best, w]))
            cells.append("%.2f" % (mops[o, w] / mops["glibc", w]))
            cells.append("%.2f" % (mib[o, w] / mib["glibc", w]))
        print("| %s | %s %.1f | %s |" % (w, best, mops[best, w], " | ".join(cells)))
    print()
    print("Peak resident memory, MiB (median):")
    print()
    per_allocator(workloads, names, mib)
    print()
    pairs = [("Batch", "Batch/real_time/threads:1", "Batch/real_time/threads:2"),
             ("Control", "Control/real_time/threads:1", "Control/real_time/threads:2")]
    print("| two threads / one thread | " + " | ".join(names) + " |")
    print("|---|" + "---:|" * len(names))
    for label, one, two in pairs:
        if one in workloads and two in workloads:
            print("| %s | %s |" % (label, " | ".join(
                "%.2fx" % (mops[n, two] / mops[n, one]) for n in names)))


if __name__ == "__main__":
    main()
