#!/usr/bin/env bash
# Installs the dependencies, builds the library and the sealmark tool, and
# checks the bundled signed sample.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release -DSEALMARK_BUILD_TESTS=OFF -DSEALMARK_BUILD_BENCH=OFF >/dev/null
cmake --build --preset release --target sealmark
build/release/source/sealmark verify samples/signed-sample.pdf
