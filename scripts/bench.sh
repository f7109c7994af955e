#!/usr/bin/env bash
# Builds the release preset and runs the benchmarks; each operation is printed beside the
# floor (a parallel copy or read of the same bytes) measured in the same run.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release
cmake --build --preset release -j "$(nproc)" --target vorn_bench
./build/release/bench/vorn_bench "$@"
