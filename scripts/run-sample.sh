#!/usr/bin/env bash
# The main job on a fresh machine: installs the dependencies, builds the release `vorn` command
# and applies a small edit to the sample photo that ships in tests/data.
#   scripts/run-sample.sh [OUTPUT.jpg|OUTPUT.tif]   (default build/sample/fallenleaf_edited.jpg)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target vorn_tool

vorn=build/release/tools/vorn
input=tests/data/fallenleaf_canon_eos70d.jpg
output="${1:-build/sample/fallenleaf_edited.jpg}"
mkdir -p "$(dirname "$output")"
export VORN_DATA_DIR="${VORN_DATA_DIR:-$PWD/build/sample/data}"

"$vorn" info "$input"
"$vorn" apply "$input" "$output" \
  --effect "VORNExposureEffect:Exposure=25" \
  --effect "VORNShadowsEffect:Shadows=30" \
  --effect "VORNContrastEffect:Contrast=15" \
  --quality 90
"$vorn" info "$output" | head -4
