#!/usr/bin/env bash
# Builds the release preset and runs the benchmarks; each operation is printed beside its floor
# (a parallel copy or read of the same bytes, or a peer program), measured in the same
# iterations. bench/end_to_end.sh times whole `vorn` commands against the peer programs.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
bash scripts/install-bench-deps.sh
cmake --preset release
cmake --build --preset release -j "$(nproc)" --target vorn_bench
# Three repetitions by default; each figure is the median.
if [ $# -eq 0 ]; then set -- --benchmark_repetitions=3 --benchmark_report_aggregates_only=true; fi
./build/release/bench/vorn_bench "$@"
