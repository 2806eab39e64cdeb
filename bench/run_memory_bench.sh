#!/bin/sh
# Runs the allocator workloads once per allocator and prints a table of
# medians (nanoseconds per allocation+release) with the ratio of the memory
# manager to each peer.
#
# Usage: run_memory_bench.sh bench_malloc bench_qkmalloc libqkmalloc.so outdir
# Environment: QK_BENCH_REPETITIONS (default 5), QK_BENCH_MIN_TIME (default 0.3).
set -eu
plain=$1 direct=$2 shim=$3 out=$4
reps=${QK_BENCH_REPETITIONS:-5}
mintime=${QK_BENCH_MIN_TIME:-0.3}
lib=/usr/lib/$(gcc -print-multiarch 2>/dev/null || echo x86_64-linux-gnu)
mkdir -p "$out"

run() {  # run NAME PRELOAD BINARY
    echo "== $1" >&2
    env ${2:+LD_PRELOAD=$2} "$3" --benchmark_repetitions="$reps" \
        --benchmark_min_time="$mintime" --benchmark_report_aggregates_only=true \
        --benchmark_format=json --benchmark_out="$out/$1.json" \
        --benchmark_out_format=json > /dev/null
}

run glibc "" "$plain"
run jemalloc "$lib/libjemalloc.so.2" "$plain"
run mimalloc "$lib/libmimalloc.so.2" "$plain"
run tcmalloc "$lib/libtcmalloc_minimal.so.4" "$plain"
run qkmalloc-shim "$shim" "$plain"
run qkMalloc-direct "" "$direct"

python3 - "$out" <<'EOF'
import json, os, sys
out = sys.argv[1]
names = ["glibc", "jemalloc", "mimalloc", "tcmalloc", "qkmalloc-shim", "qkMalloc-direct"]
peers = names[:4]
ours = names[4:]
medians = {}
for name in names:
    with open(os.path.join(out, name + ".json")) as f:
        data = json.load(f)
    for b in data["benchmarks"]:
        if b.get("aggregate_name") != "median":
            continue
        workload = b["run_name"]
        # Nanoseconds per item (allocation + release), over all threads.
        ns = 1e9 / b["items_per_second"]
        medians.setdefault(workload, {})[name] = ns
        if workload.startswith(("Batch", "Control")):
            # CPU time per item: flat when threads do not slow each other down.
            cpu = b["cpu_time"] / (b["items_per_second"] * b["real_time"] * 1e-9)
            medians.setdefault(workload + " (cpu)", {})[name] = cpu
print("| workload | " + " | ".join(names) + " |")
print("|---|" + "---:|" * len(names))
for w, row in medians.items():
    print("| %s | %s |" % (w, " | ".join("%.1f" % row[n] for n in names)))
print()
print("Ratio of the manager's time to each peer's (below 1: the manager is faster):")
print()
print("| workload | " + " | ".join("%s / %s" % (o, p) for o in ours for p in peers) + " |")
print("|---|" + "---:|" * (len(ours) * len(peers)))
for w, row in medians.items():
    print("| %s | %s |" % (w, " | ".join("%.2f" % (row[o] / row[p]) for o in ours for p in peers)))
print()
# Scaling of the thread-local batch workload: wall-clock throughput of two
# threads against one, and the same for the allocation-free control, which
# shows how much of the second core this run actually had.
print("| two threads / one thread | " + " | ".join(names) + " |")
print("|---|" + "---:|" * len(names))
for w in ["Batch", "Control"]:
    cells = []
    for n in names:
        one = medians.get(w + "/real_time/threads:1", {}).get(n)
        two = medians.get(w + "/real_time/threads:2", {}).get(n)
        cells.append("%.2fx" % (one / two) if one and two else "-")
    print("| %s | %s |" % (w, " | ".join(cells)))
EOF
