#!/usr/bin/env bash
# The test command: installs dependencies; fuzzes the blob readers and the in-memory decoders for
# a bounded time (clang, libFuzzer); builds under address + undefined-behaviour sanitizers and
# runs every test; then the threaded suites again under the thread sanitizer.
#   scripts/test.sh [fuzz seconds per target, default 30; 0 skips fuzzing]
set -euo pipefail
cd "$(dirname "$0")/.."

fuzz_seconds="${1:-30}"
bash scripts/install-deps.sh
jobs=$(nproc)

if [ "$fuzz_seconds" -gt 0 ]; then
  bash scripts/fuzz.sh "$fuzz_seconds"
fi

cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

cmake --preset tsan
cmake --build --preset tsan -j "$jobs" --target vorn_tests
ctest --preset tsan -j "$jobs" -R 'Concurrent|Thread|Log|MemoryManager|Raw|Reader|Cli|EffectChain|EffectBase|ImageLayerRawUpdates|LayerMaskConcurrent|ImageProcessorCancel|BrushQueue|BrushConcurrency|BrushDabs.Synchronous'
