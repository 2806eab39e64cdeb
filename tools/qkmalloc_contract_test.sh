#!/bin/sh
# Usage: qkmalloc_contract_test.sh path/to/libqkmalloc.so path/to/qkmalloc_contract_test
# The shim's C contract: alignment of every block, and null with ENOMEM
# (rather than the end of the process) when the system refuses memory, for
# the test program and for Python under an address-space limit.
set -eu
shim=$(readlink -f "$1")
program=$2
python=/usr/bin/python3
[ -x "$python" ] || python=$(command -v python3)
failures=0
fail() { echo "FAIL $1"; failures=$((failures + 1)); }
# About 600 MB of address space: a 1 GiB request can never be met.
limit=600000

env LD_PRELOAD="$shim" "$program" align || fail align
(ulimit -v "$limit"; exec env LD_PRELOAD="$shim" "$program" exhaust) || fail exhaust

out=$( (ulimit -v "$limit"; exec env LD_PRELOAD="$shim" "$python" -c '
try:
    bytearray(1 << 30)
except MemoryError:
    print("refused", len(bytearray(1 << 20)))
') 2>&1) || true
[ "$out" = "refused 1048576" ] || fail "python: $out"

[ "$failures" -eq 0 ]
