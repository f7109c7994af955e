#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz and runs each one for a bounded time:
#   scripts/fuzz.sh [seconds per target, default 60]
# Any crash, leak, timeout or sanitizer report fails the run; its input is kept in
# build/fuzz/runs/artifacts/<target>/ and can be replayed with build/fuzz/fuzz/fuzz_<target> FILE.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-60}"
bash scripts/install-deps.sh
cmake --preset fuzz
cmake --build --preset fuzz -j "$(nproc)"

runs=build/fuzz/runs
rm -rf "$runs/seeds"
build/fuzz/fuzz/fuzz_seeds "$runs/seeds"
# The export and owned-frame targets start from the decoders' photos; a small real raw file seeds
# the raw path of the in-memory opener.
cp -r "$runs/seeds/open_memory" "$runs/seeds/export"
cp -r "$runs/seeds/open_memory" "$runs/seeds/decode_frame"
cp tests/data/truncated_iphone12promax_exiv2.dng "$runs/seeds/open_memory/"
# The shipped presets seed the preset reader.
mkdir -p "$runs/seeds/preset_parse"
cp presets/*.json "$runs/seeds/preset_parse/"

for target in mask_blob proxy_blob zlib_stream open_memory decode_frame export apply_args cube_parse preset_parse dcp_parse; do
  corpus="$runs/corpus/$target"
  artifacts="$runs/artifacts/$target"
  log="$runs/$target.log"
  mkdir -p "$corpus" "$artifacts"
  echo "== fuzz_$target for ${seconds}s"
  if ! "build/fuzz/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=4096 \
      -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$runs/seeds/$target" \
      >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz_$target FAILED (log: $log)"
    exit 1
  fi
  grep -E "^Done [0-9]+ runs|stat::(number_of_executed_units|peak_rss_mb|new_units_added)" "$log"
done
echo "fuzzing passed"
