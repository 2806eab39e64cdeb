#!/bin/sh
# Runs ordinary system programs on the memory manager through the preloadable
# shim and compares what they produce with a run on the C runtime's heap.
# Usage: qkmalloc_test.sh path/to/libqkmalloc.so
set -eu
shim=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python=/usr/bin/python3
[ -x "$python" ] || python=$(command -v python3)
failures=0
check() {  # check NAME: compares $work/NAME.plain with $work/NAME.shim
    if cmp -s "$work/$1.plain" "$work/$1.shim"; then
        echo "ok   $1"
    else
        echo "FAIL $1"; failures=$((failures + 1))
    fi
}
onshim() { env LD_PRELOAD="$shim" "$@"; }

# The shim really serves malloc: a block of the program's malloc is the manager's.
onshim "$python" -c '
import ctypes
libc = ctypes.CDLL(None)
libc.malloc.restype = ctypes.c_void_p
libc.qkMemSize.argtypes = [ctypes.c_void_p]
p = libc.malloc(100)
print("routed" if libc.qkMemSize(ctypes.c_void_p(p)) == 128 else "not routed")
libc.free(ctypes.c_void_p(p))
' > "$work/routed.shim"
echo routed > "$work/routed.plain"
check routed

ls -lR /usr/include > "$work/ls.plain" 2>&1 || true
onshim ls -lR /usr/include > "$work/ls.shim" 2>&1 || true
check ls

# A large file, sorted on two threads (sort's own parallel merge).
"$python" -c '
import random
random.seed(5)
for i in range(400000):
    print("%08x %s" % (random.getrandbits(32), "x" * random.randint(0, 120)))
' > "$work/input"
sort --parallel=2 -S 64M "$work/input" > "$work/sort.plain"
onshim sort --parallel=2 -S 64M "$work/input" > "$work/sort.shim"
check sort

# An interpreter with threads, dictionaries, strings and big buffers.
script='
import threading, hashlib
def work(n, out):
    d = {}
    for i in range(200000):
        d[str(i) * (i % 7)] = bytes(i % 300)
        if i % 3 == 0:
            d.pop(str(i - 3) * ((i - 3) % 7), None)
    big = [bytearray(70000 + i) for i in range(50)]
    out[n] = hashlib.sha256(repr(sorted(d)).encode()).hexdigest()[:16] + str(sum(map(len, big)))
out = {}
threads = [threading.Thread(target=work, args=(n, out)) for n in range(3)]
for t in threads: t.start()
for t in threads: t.join()
print(sorted(out.items()))
'
"$python" -c "$script" > "$work/python.plain"
onshim "$python" -c "$script" > "$work/python.shim"
check python

echo "$((4 - failures)) passed, $failures failed"
[ "$failures" -eq 0 ]
