#!/usr/bin/env bash
# Installs the build into a scratch prefix, then builds a program against it
# twice (CMake package, pkg-config) and runs it on the bundled sample.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1 source=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
export LD_LIBRARY_PATH="$scratch/prefix/lib"

cmake -S "$source/tests/install" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
[ "$("$scratch/cmake/consumer" "$source/samples/signed-sample.pdf")" = "1 intact" ]

flags=$(PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig" pkg-config --cflags --libs pdfsealmark)
# shellcheck disable=SC2086
c++ -std=c++17 "$source/tests/install/consumer.cpp" $flags -o "$scratch/pc-consumer"
[ "$("$scratch/pc-consumer" "$source/samples/signed-sample.pdf")" = "1 intact" ]

[ "$("$scratch/prefix/bin/sealmark" verify --json "$source/samples/signed-sample.pdf" | grep -c '"intact":true')" = 1 ]
echo "install test: find_package, pkg-config and the installed sealmark all work"
