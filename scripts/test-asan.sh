#!/usr/bin/env bash
# Builds with clang, AddressSanitizer and UndefinedBehaviorSanitizer, and runs
# every test (the fuzz seed replays included) under them.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset asan >/dev/null
cmake --build --preset asan -j "$(nproc)"
ctest --preset asan -j "$(nproc)"
