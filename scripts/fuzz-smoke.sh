#!/usr/bin/env bash
# A short, bounded libFuzzer run of every fuzz target, starting from its seed
# corpus (which is not modified: new inputs go to a scratch directory).
# Usage: scripts/fuzz-smoke.sh [SECONDS_PER_TARGET]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-20}
if ! command -v clang++ >/dev/null; then
  echo "fuzz-smoke: clang++ not found; skipped"
  exit 0
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"
# fuzz_closed_tokens reads tokens through the stand-in libraries.
export LD_LIBRARY_PATH=$PWD/build/fuzz/tests/standins/asdtst:$PWD/build/fuzz/tests/standins/tslib${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for seeds in fuzz/corpus/*/; do
  name=$(basename "$seeds")
  bin=build/fuzz/fuzz/$name
  [ -x "$bin" ] || { echo "fuzz-smoke: no binary for $name"; exit 1; }
  mkdir -p "$scratch/$name"
  echo "fuzz-smoke: $name for ${seconds}s"
  ASAN_OPTIONS=detect_leaks=1 "$bin" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
    -print_final_stats=1 "$scratch/$name" "$seeds" 2>&1 | tail -n 3
done
