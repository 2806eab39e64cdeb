#!/bin/sh
# Usage: qkmalloc_test.sh path/to/libqkmalloc.so. Programs on the memory manager
# through the preloadable shim: a probe of its contracts, then a threaded sort.
set -eu
shim=$(readlink -f "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python=/usr/bin/python3
[ -x "$python" ] || python=$(command -v python3)
failures=0
fail() { echo "FAIL $1"; failures=$((failures + 1)); }

# malloc is the manager's, realloc keeps the bytes, overflowing and refused
# requests fail with ENOMEM, the aligned forms align or refuse with EINVAL.
probe='
import ctypes, errno
libc = ctypes.CDLL(None, use_errno=True)
P, N = ctypes.c_void_p, ctypes.c_size_t
for name, res, args in [("malloc", P, [N]), ("calloc", P, [N, N]), ("realloc", P, [P, N]),
        ("free", None, [P]), ("aligned_alloc", P, [N, N]), ("malloc_usable_size", N, [P]),
        ("posix_memalign", ctypes.c_int, [ctypes.POINTER(P), N, N])]:
    getattr(libc, name).restype, getattr(libc, name).argtypes = res, args
libc.qkMemSize.restype, libc.qkMemSize.argtypes = N, [P]
p = libc.malloc(100); routed = libc.qkMemSize(p) == 128
ctypes.memset(p, 7, 100); q = libc.realloc(p, 5000)
bad = [name for name, ok in [("routed", routed and libc.malloc_usable_size(q) >= 5000),
        ("realloc", ctypes.string_at(q, 100) == b"\7" * 100),
        ("calloc", libc.calloc(1 << 62, 8) is None and ctypes.get_errno() == errno.ENOMEM),
        ("huge", libc.malloc(1 << 62) is None and ctypes.get_errno() == errno.ENOMEM),
        ("einval", libc.aligned_alloc(24, 100) is None and ctypes.get_errno() == errno.EINVAL)]
    if not ok]
out = P()
for a in (8, 16, 64, 4096):
    if libc.posix_memalign(ctypes.byref(out), a, 100) or out.value % a or libc.malloc_usable_size(out) < 100:
        bad.append("align %d" % a)
    libc.free(out)
bad += ["memalign 24"] if libc.posix_memalign(ctypes.byref(out), 24, 8) != errno.EINVAL else []
print(bad or "all kept")
'
out=$(env LD_PRELOAD="$shim" "$python" -c "$probe" 2>&1) || true
[ "$out" = "all kept" ] || fail "probe: $out"

# A large file sorted on two threads must match a run on the C runtime's heap.
awk 'BEGIN { srand(5); for (i = 0; i < 200000; i++)
    printf "%08x %.*s\n", int(rand() * 4294967296), int(rand() * 121), sprintf("%120s", "") }' > "$work/input"
sort --parallel=2 -S 64M "$work/input" > "$work/plain"
env LD_PRELOAD="$shim" sort --parallel=2 -S 64M "$work/input" > "$work/shim" 2>&1 || true
cmp -s "$work/plain" "$work/shim" || fail sort

[ "$failures" -eq 0 ]
