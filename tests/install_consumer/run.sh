#!/bin/sh
# run.sh BUILD_DIR SOURCE_DIR WORK_DIR CMAKE
# Installs the built library into WORK_DIR/prefix, then configures, builds and
# runs the consumer project against that prefix, once through the CMake
# package and once through pkg-config.
set -eu
build=$1 src=$2 work=$3 cmake=$4
rm -rf "$work"
mkdir -p "$work"
"$cmake" --install "$build" --prefix "$work/prefix" >"$work/install.log"
"$cmake" -S "$src" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" >"$work/configure.log"
"$cmake" --build "$work/build" >"$work/build.log"
"$work/build/consumer"

pc=$(find "$work/prefix" -name qkUtil.pc | head -n 1)
if command -v pkg-config >/dev/null 2>&1; then
  export PKG_CONFIG_PATH=$(dirname "$pc")
  ${CXX:-c++} "$src/consumer.cpp" -o "$work/consumer-pc" $(pkg-config --cflags --libs qkUtil) \
    -Wl,-rpath,"$(pkg-config --variable=libdir qkUtil)"
  "$work/consumer-pc"
fi
