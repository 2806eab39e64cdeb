#!/bin/sh
# Usage: qkmalloc_install_test.sh BUILD_DIR WORK_DIR CMAKE. Installs the build
# into WORK_DIR/prefix and preloads the installed libqkmalloc.so into ordinary
# programs with no LD_LIBRARY_PATH: the shim must find libqkUtil.so beside
# itself, wherever the prefix lies.
set -eu
build=$1 work=$2 cmake=$3
rm -rf "$work"
mkdir -p "$work"
trap 'rm -rf "$work"' EXIT
"$cmake" --install "$build" --prefix "$work/prefix" >"$work/install.log"
shim=$(find "$work/prefix" -name libqkmalloc.so | head -n 1)
[ -n "$shim" ] || { echo "FAIL libqkmalloc.so not installed"; exit 1; }
unset LD_LIBRARY_PATH

printf 'pear\napple\nfig\n' >"$work/in"
out=$(env LD_PRELOAD="$shim" sort "$work/in" 2>"$work/err")
if [ -s "$work/err" ] || [ "$out" != "$(printf 'apple\nfig\npear')" ]; then
  echo "FAIL sort under the installed shim:"; cat "$work/err"; exit 1
fi
# The manager really serves the program: a 100-byte block is one of its
# 128-byte blocks.
python=/usr/bin/python3
[ -x "$python" ] || python=$(command -v python3)
size=$(env LD_PRELOAD="$shim" "$python" -c '
import ctypes
libc = ctypes.CDLL(None)
libc.malloc.restype, libc.malloc.argtypes = ctypes.c_void_p, [ctypes.c_size_t]
libc.qkMemSize.restype, libc.qkMemSize.argtypes = ctypes.c_size_t, [ctypes.c_void_p]
print(libc.qkMemSize(libc.malloc(100)))' 2>"$work/err") || true
if [ "$size" != 128 ]; then
  echo "FAIL not routed to the manager (got '$size'):"; cat "$work/err"; exit 1
fi
echo "installed shim preloads"
