#!/usr/bin/env bash
# The test command: installs dependencies, builds under address + undefined-behaviour
# sanitizers and runs every test; then the threaded suites again under the thread sanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs=$(nproc)

cmake --preset asan
cmake --build --preset asan -j "$jobs"
ctest --preset asan -j "$jobs"

cmake --preset tsan
cmake --build --preset tsan -j "$jobs" --target vorn_tests
ctest --preset tsan -j "$jobs" -R 'Concurrent|Thread|Log|MemoryManager'
