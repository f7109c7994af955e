#!/usr/bin/env bash
# Times `vorn batch` on many 6 MP JPEGs with a three-effect preset (exposure, contrast,
# saturation) at -j 1 and -j 2, against vips doing comparable work through `xargs -P 2` when it
# is installed, and compares the peak memory of 20 and of all files at -j 2.
#   bench/batch_bench.sh [-n FILES]      (default 200)
# vips runs, per file, one gain (exposure), one gain about mid-grey (contrast) and a chroma gain
# in LCh (saturation), then writes JPEG quality 92 at the same size; vorn writes quality 92 too.
# vips passes the float intermediates between its commands as .v files in /dev/shm.
set -euo pipefail
cd "$(dirname "$0")/.."

files=200
if [ "${1:-}" = "-n" ]; then
  files="$2"
  shift 2
fi
have() { command -v "$1" >/dev/null 2>&1; }
[ -x /usr/bin/time ] || { echo "needs GNU time (/usr/bin/time) for peak memory" >&2; exit 2; }
vorn=build/release/tools/vorn
[ -x "$vorn" ] || { echo "build vorn first: cmake --build --preset release --target vorn_tool" >&2; exit 2; }

work=build/bench_batch
cache="$work/photos_6mp"
export VORN_DATA_DIR="$PWD/$work/data"
mkdir -p "$cache" "$VORN_DATA_DIR"

# Photo-like inputs made once: a smooth two-colour gradient under a radial falloff, plus noise.
# Eight distinct scenes are drawn; the rest are copies of them, which decode the same way.
if [ "$(find "$cache" -name 'photo_*.jpg' | wc -l)" -lt "$files" ]; then
  have convert || { echo "needs ImageMagick's convert to make the inputs" >&2; exit 2; }
  colours=("#3a6ea5 #e8c07d" "#2d5a27 #c9d6a3" "#7a3b2e #f2d0a4" "#1f2a44 #9fb7d9"
           "#5b4a6b #e6c3b3" "#264d4d #d8e6c0" "#6b5a2e #f0e0b0" "#2e3f5b #f5b38a")
  for s in $(seq 0 7); do
    read -r from to <<<"${colours[$s]}"
    [ -f "$cache/scene_$s.jpg" ] ||
      convert -size 2000x3000 "gradient:$from-$to" -rotate 90 \
        \( -size 3000x2000 radial-gradient:'#ffffff'-'#303030' \) -compose multiply -composite \
        -seed "$s" -attenuate 0.4 +noise Gaussian -quality 92 "$cache/scene_$s.jpg"
  done
  for i in $(seq 1 "$files"); do
    name=$(printf 'photo_%04d.jpg' "$i")
    [ -f "$cache/$name" ] || cp "$cache/scene_$((i % 8)).jpg" "$cache/$name"
  done
fi
inputs="$work/inputs_$files"
rm -rf "$inputs" && mkdir -p "$inputs"
for i in $(seq 1 "$files"); do
  name=$(printf 'photo_%04d.jpg' "$i")
  ln -s "$PWD/$cache/$name" "$inputs/$name"
done
first20="$work/inputs_20"
rm -rf "$first20" && mkdir -p "$first20"
for i in $(seq 1 20); do
  name=$(printf 'photo_%04d.jpg' "$i")
  ln -s "$PWD/$cache/$name" "$first20/$name"
done

preset="$work/three_effects.json"
cat >"$preset" <<'JSON'
{"format": "vorn preset", "version": 1, "name": "three effects",
 "layers": [{"effects": [{"id": "VORNExposureEffect", "values": {"Exposure": 20}},
                         {"id": "VORNContrastEffect", "values": {"Contrast": 25}},
                         {"id": "VORNSaturationEffect", "values": {"Saturation": 30}}]}]}
JSON

# Seconds of wall time and peak RSS (KiB) of one command, from GNU time.
measure() {
  local log="$work/time.log"
  /usr/bin/time -v -o "$log" "$@" >/dev/null
  seconds=$(awk -F': ' '/Elapsed \(wall clock\)/ {n = split($2, t, ":"); s = 0;
    for (i = 1; i <= n; i++) s = s * 60 + t[i]; print s}' "$log")
  rss=$(awk -F': ' '/Maximum resident set size/ {print $2}' "$log")
}
rate() { awk -v n="$1" -v s="$2" 'BEGIN {printf "%.2f", n / s}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }

run_vorn() {  # jobs, input folder
  rm -rf "$work/out" && mkdir -p "$work/out"
  measure "$vorn" batch "$2" -o "$work/out" --preset "$preset" -j "$1" --quality 92
}

echo "inputs: $files JPEGs of 3000 x 2000 ($cache)"
run_vorn 1 "$inputs"
rate1=$(rate "$files" "$seconds")
echo "vorn batch -j 1: $seconds s, $rate1 files/s"
run_vorn 2 "$inputs"
rate2=$(rate "$files" "$seconds")
rss_all=$rss
echo "vorn batch -j 2: $seconds s, $rate2 files/s (ratio to -j 1: $(ratio "$rate2" "$rate1"))"

if have vips; then
  vipsjob="$work/vips_one.sh"
  cat >"$vipsjob" <<'SH'
#!/bin/sh
# One file: exposure gain, contrast about mid-grey, chroma gain in LCh, JPEG Q92.
set -e
t=$(mktemp -d -p "$(test -d /dev/shm && echo /dev/shm || echo /tmp)")
vips linear "$1" "$t/a.v" 1.15 0
vips linear -- "$t/a.v" "$t/b.v" 1.25 -32
vips colourspace "$t/b.v" "$t/c.v" lch
vips linear "$t/c.v" "$t/d.v" "1 1.3 1" "0 0 0"
vips colourspace "$t/d.v" "$2[Q=92]" srgb
rm -rf "$t"
SH
  chmod +x "$vipsjob"
  rm -rf "$work/out_vips" && mkdir -p "$work/out_vips"
  list="$work/vips_list"
  for f in "$inputs"/*.jpg; do printf '%s\n%s\n' "$f" "$work/out_vips/$(basename "$f")"; done >"$list"
  measure xargs -P 2 -n 2 -d '\n' -a "$list" "$vipsjob"
  ratev=$(rate "$files" "$seconds")
  echo "vips via xargs -P 2: $seconds s, $ratev files/s; vorn -j 2 / vips: $(ratio "$rate2" "$ratev")"
else
  echo "vips is not installed: no comparison"
fi

run_vorn 2 "$first20"
rss_20=$rss
echo "peak RSS at -j 2: $rss_20 KiB after 20 files, $rss_all KiB after $files; ratio $(ratio "$rss_all" "$rss_20")"
