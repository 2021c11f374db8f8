#!/usr/bin/env bash
# consume.sh <installed|subdirectory|pkg-config> <palomir build dir> <palomir source dir> <work dir>
# Builds the minimal host the way an embedding project would, then runs it.
set -euo pipefail
mode=$1 build=$2 source=$3 work=$4
example="$source/examples/cpp/minimal.cpp"
rm -rf "$work" && mkdir -p "$work"
case "$mode" in
  installed)
    cmake --install "$build" --prefix "$work/prefix" >/dev/null
    mkdir "$work/readme"  # each ```c and ```cpp block of README.md becomes a source file
    awk -v dir="$work/readme" '/^```(c|cpp)$/ { n++; file = sprintf("%s/%02d.%s", dir, n, substr($0, 4)); next }
      /^```/ { file = "" } file != "" { print > file }' "$source/README.md"
    cmake -S "$source/tests/consumer/installed" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" \
      -DPALOMIR_EXAMPLE="$example" -DREADME_BLOCKS="$work/readme" >/dev/null
    cmake --build "$work/build" -j2
    LD_LIBRARY_PATH="$work/prefix/lib:${LD_LIBRARY_PATH:-}" "$work/build/host"
    ;;
  subdirectory)
    cmake -S "$source/tests/consumer/subdirectory" -B "$work/build" -G Ninja \
      -DPALOMIR_SOURCE="$source" -DPALOMIR_EXAMPLE="$example" >/dev/null
    cmake --build "$work/build" -j2 >/dev/null
    # Nothing of Palomir's own tests or tools is built for an embedding project.
    if [ -e "$work/build/palomir/tools" ] || [ -e "$work/build/palomir/tests" ]; then
      echo "palomir built its tests or tools inside an embedding project" >&2; exit 1
    fi
    "$work/build/host"
    ;;
  pkg-config)
    cmake --install "$build" --prefix "$work/prefix" >/dev/null
    export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
    # shellcheck disable=SC2046
    c++ -o "$work/host" "$example" $(pkg-config --cflags --libs palomir)
    LD_LIBRARY_PATH="$work/prefix/lib:${LD_LIBRARY_PATH:-}" "$work/host"
    ;;
esac
