#!/usr/bin/env bash
# Times whole `vorn apply` commands against the peer programs doing the same job on the same
# file, when they are installed (scripts/install-bench-deps.sh): libvips' `vips` and
# `vipsthumbnail`, ImageMagick's `convert`, LibRaw's `dcraw_emu`. The commands of one case run
# in turn, repetition after repetition, so all see the same machine; each ratio is the median
# of the per-repetition ratios vorn / peer.
#   bench/end_to_end.sh [-n RUNS] [PHOTO.jpg] [RAW.dng]
# Without PHOTO, a 6000 x 4000 JPEG is made from the shared 22 MP sample with vips.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=5
if [ "${1:-}" = "-n" ]; then
  runs="$2"
  shift 2
fi
work=build/bench_end_to_end
mkdir -p "$work"
export VORN_DATA_DIR="$PWD/$work/data"

vorn=build/release/tools/vorn
if [ ! -x "$vorn" ]; then
  cmake --preset release >/dev/null
  cmake --build --preset release -j "$(nproc)" --target vorn_tool >/dev/null
fi

have() { command -v "$1" >/dev/null 2>&1; }
# Only ImageMagick's own convert counts; other programs of that name are skipped.
have_convert() { have convert && convert -version 2>/dev/null | grep -q ImageMagick; }
[ -x /usr/bin/time ] || { echo "needs GNU time (/usr/bin/time) for peak memory" >&2; exit 2; }

photo="${1:-}"
if [ -z "$photo" ]; then
  photo="$work/photo_24mp.jpg"
  sample=../shared/samples/photo/canon_5d3_22mp_issue266.jpg
  if [ ! -f "$photo" ]; then
    have vips || { echo "give a JPEG, or install vips to make one" >&2; exit 2; }
    vips resize "$sample" "$photo[Q=90,strip=false]" 1.0416667 --vscale 1.0416667
  fi
fi
raw="${2:-../shared/samples/raw/bmpcc4k_imageio.dng}"

# One run: "seconds peak-MiB" of the command, or "- -" when it failed.
measure() {
  if /usr/bin/time -o "$work/time.txt" -f "%e %M" "$@" >/dev/null 2>&1; then
    awk '{ printf "%s %.1f\n", $1, $2 / 1024 }' "$work/time.txt"
  else
    echo "- -"
  fi
}

median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "-"; else if (NR % 2) print v[(NR + 1) / 2]; else print (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# case NAME, then commands as "label|command words" strings; the first is vorn's.
run_case() {
  local name="$1"
  shift
  local commands=("$@")
  local -A times peaks
  for ((r = 0; r < runs; ++r)); do
    for c in "${commands[@]}"; do
      local label="${c%%|*}" words="${c#*|}"
      # shellcheck disable=SC2086
      read -r seconds peak <<<"$(measure $words)"
      times[$label]+="$seconds "
      peaks[$label]+="$peak "
      [ "$seconds" != "-" ] || echo "  (failed: $words)" >&2
    done
  done
  echo "== $name ($runs runs each, in turn)"
  printf "  %-16s %10s %10s %14s\n" command "median s" "peak MiB" "vorn / this"
  local first="${commands[0]%%|*}"
  for c in "${commands[@]}"; do
    local label="${c%%|*}"
    local t m ratio
    t=$(tr ' ' '\n' <<<"${times[$label]}" | awk '$1 != "" && $1 != "-"' | median)
    m=$(tr ' ' '\n' <<<"${peaks[$label]}" | awk '$1 != "" && $1 != "-"' | median)
    ratio=$(paste -d' ' <(tr ' ' '\n' <<<"${times[$first]}") <(tr ' ' '\n' <<<"${times[$label]}") |
      awk '$1 != "-" && $2 != "-" && $2 > 0 { print $1 / $2 }' | median |
      awk '{ print $1 == "-" ? "-" : sprintf("%.2f", $1) }')
    printf "  %-16s %10s %10s %14s\n" "$label" "$t" "$m" "$ratio"
  done
}

exposure=(
  "vorn|$vorn apply $photo $work/vorn.jpg --effect VORNExposureEffect:Exposure=36 --quality 90")
have vips && exposure+=("vips linear|vips linear $photo $work/vips.jpg[Q=90] 1.2 0")
have_convert && exposure+=("convert|convert $photo -evaluate multiply 1.2 -quality 90 $work/im.jpg")
run_case "24 MP JPEG, exposure, JPEG q90" "${exposure[@]}"

thumb=("vorn|$vorn apply $photo $work/vorn_400.jpg --long-side 400")
have vipsthumbnail && thumb+=("vipsthumbnail|vipsthumbnail $photo -s 400 -o $PWD/$work/vips_400.jpg")
run_case "long side 400" "${thumb[@]}"

tiff=("vorn|$vorn apply $photo $work/vorn16.tif --depth 16")
have vips && tiff+=("vips deflate|vips colourspace $photo $work/vips16.tif[compression=deflate] rgb16")
run_case "16-bit deflate TIFF" "${tiff[@]}"
for f in "$work/vorn16.tif" "$work/vips16.tif"; do
  [ -f "$f" ] && printf "  %-16s %10.1f MB\n" "$(basename "$f")" "$(stat -c %s "$f" | awk '{ print $1 / 1e6 }')"
done

if [ -f "$raw" ]; then
  rawjob=("vorn|$vorn apply $raw $work/vorn_raw.jpg --quality 90")
  have dcraw_emu && rawjob+=("dcraw_emu -T|dcraw_emu -T -Z $work/dcraw.tiff $raw")
  run_case "raw file to JPEG" "${rawjob[@]}"
fi
