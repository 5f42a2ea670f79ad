#!/usr/bin/env bash
# Installs the dependencies, builds everything (library, tool, tests,
# benchmarks, fuzz replays) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release -DSEALMARK_BUILD_TESTS=ON -DSEALMARK_BUILD_BENCH=ON >/dev/null
cmake --build --preset release -j "$(nproc)"
ctest --preset release -j "$(nproc)"
