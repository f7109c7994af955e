#!/usr/bin/env bash
# Renders every effect identifier (tone, detail, creative, colour, LUT, lens, face and the grouped
# ones) at a strong setting on a sample photo and writes a labelled contact sheet and an HTML page,
# so a person sees at a glance what each one does.
#   scripts/gallery.sh [OUTPUT_DIR]   (default build/gallery)
# Settings below are "Name=value,Name=value"; an identifier without one gets its first parameter
# at 80 % of its range.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
bash scripts/install-deps.sh imagemagick fonts-dejavu-core
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target vorn_tool

vorn=build/release/tools/vorn
input=tests/data/fallenleaf_canon_eos70d.jpg
# The landscape has no face: the face effects are shown on the test portrait, at its own size.
portrait=tests/data/astronaut_face_320.jpg
out="${1:-build/gallery}"
tiles="$out/tiles"
mkdir -p "$tiles"
export VORN_DATA_DIR="${VORN_DATA_DIR:-$PWD/build/sample/data}"
longSide=640

declare -A strong=(
  [VORNExposureEffect]="Exposure=40"
  [VORNExposureEffectHDR]="Exposure=40"
  [VORNShadowsEffect]="Shadows=80"
  [VORNHighlightsEffect]="Highlights=-80"
  [VORNHighlightsEffectHDR]="Shadows=80"
  [VORNBlackWhiteEffect]="Whites=40,Blacks=-60"
  [VORNCurveEffect]="RGB=75"
  [VORNDevelopCommonEffectID]="Exposure=20,Shadows=60,Contrast=40"
  [VORNRawDevelopCommonEffectID]="Highlight Recovery=100,Black Level=60"
  [VORNHDRBasicCommonEffectID]="Highlights Color=-60,Contrast=30,Amount=60"
  [VORNHDRBasicCommonEffectRawID]="Temperature=40,Shadows=50"
  [VORNSkyEnhancerEffect]="Amount=100"
  [VORNSimpleBlurEffect]="Radius=40"
  [VORNSmartBlurEffect]="Amount=100,Smooth=200,Boost=20"
  [VORNGlowEffect]="Amount=80,Radius=50,Brightness=20"
  [VORNSoftFocusFilterEffect]="Amount=90,Radius=50"
  [VORNOrtonFilterEffect]="Amount=80,Blur=60"
  [VORNFogFilterEffect]="Amount=80,Density=60"
  [VORNHighKeyEffect]="Amount=90"
  [VORNDepthEffect]="Amount=100,Focus=55"
  [VORNVignetteEffect]="Amount=-90,Midpoint=40,Feather=60"
  [VORNToolGraduatedNaturalDensityEffect]="Exposure=-80,Offset=10,Transition=40"
  [VORNAdjustableGraduatedEffect]="Exposure=-50,Saturation=40,Temperature=-60"
  [VORNAdjustableGraduatedEffectHDR]="Exposure=-50,Contrast=40,Temperature=60"
  [VORNDodgeBurnEffect]="Dodge=60,Burn=60"
  [VORNGrainNewEffect]="Amount=90,Size=60,Roughness=40"
  [VORNFocusBlurDevEffect]="Amount=100,Radius=60"
  [VORNSunLightRaysEffect]="Amount=90,Length=70,Warmth=40"
  [VORNTextureOverlayEffect]="Opacity=80"
  [VORNFillColorEffect]="Opacity=50,Red=230,Green=120,Blue=40"
  [VORNSharpenEffect]="Amount=100"
  [VORNStructureEffect]="Amount=80"
  [VORNStructureHDREffect]="Amount=80,Boost=80"
  [VORNDenoiseLaplacianNLBEffect]="Amount=100,Denoise=60"
  [VORNSaturationEffect]="Saturation=70"
  [VORNVibranceEffect]="Vibrance=90"
  [VORNRamixSaturationEffect]="Saturation=-70"
  [VORNRamixVibranceEffect]="Vibrance=90"
  [VORNPolarizeEffect]="Amount=100"
  [VORNWhiteBalanceEffect]="Temperature=60,Tint=20"
  [VORNRawWhiteBalanceEffect]="Temperature=-40,Tint=10"
  [VORNRawDevelopEffect]="Highlight Recovery=100,Black Level=60"
  [VORNFoliageEnhanceEffect]="Amount=100"
  [VORNBWChannelsEffect]="Amount=100,Red=60,Yellow=40,Blue=-50"
  [VORNSplitToningEffect]="Highlights Saturation=80,Shadows Saturation=80"
  [VORNColorContrastEffect]="Amount=90"
  [VORNChannelsEffect]="Red=50,Blue=-40"
  [VORNSplitWarmthEffect]="Highlights Warmth=80,Shadows Warmth=-80"
  [VORNPhotoFilterEffect]="Amount=80,Hue=30"
  [VORNContrastColorRangeEffect]="Amount=100,Hue=30,Range=50"
  [VORNColorsTintEffect]="Amount=70,Hue=200"
  [VORNRemoveColorCastEffect]="Amount=100"
  [VORNCrossProcessingEffect]="Amount=90"
  [VORNChannelMixerEffect]="Red from Red=60,Red from Green=40,Blue from Blue=70,Blue from Red=30"
  [VORNColorBalanceEffect]="Cyan Red=40,Shadows Yellow Blue=60,Highlights Yellow Blue=-50"
  [VORNComplexBleachEffect]="Amount=90,Saturation=-30"
  [VORNWarmSkylightEffect]="Amount=100,Color correction=40"
  [VORNBrillianceWarmthEffect]="Brilliance=80,Warmth=60"
  [VORNHueShiftEffect]="Hue=60"
  [VORNBiColorEffect]="Amount=90"
  [VORNLUTMappingEffect]="Amount=100,Amount.data=warm_film.cube"
  # The sample's own lens (EF50mm f/1.8 II at 50 mm) is matched from its EXIF when no shot is
  # given, but its profile barely moves a pixel: the tile names a wide zoom's profile instead.
  [VORNLensCorrectionEffect]="Distortion=100,Chromatic Aberration=100,Vignetting=100,Distortion.data=camera maker=Canon;camera model=Canon EOS 5D Mark II;lens maker=Canon;lens model=Canon EF 24-105mm f/4L IS USM;focal length=24;aperture=4"
  [VORNLensVignetteEffect]="Amount=-80,Midpoint=0"
  [VORNFaceEffect]="Face Light=60,Skin Smoothing=100,Eye Enhancement=80"
  [VORNFaceSkinSoftenerEffect]="Amount=100"
)

# The first parameter of an identifier at 80 % of its range, from `vorn effects ID`.
default_setting() {
  "$vorn" effects "$1" | awk 'NR == 2 {
    gsub(/[\[\],]/, " ");
    name = $1; min = $(NF - 1); max = $NF;
    for (i = 2; i < NF - 1 && $i != "="; i++) name = name " " $i;
    printf "%s=%g", name, min + 0.8 * (max - min); exit }'
}

ids=$(grep -ho 'kId = "VORN[A-Za-z0-9]*"' include/vorn/effects/tone_effects.h \
        include/vorn/effects/detail_effects.h \
        include/vorn/effects/creative_effects.h include/vorn/effects/color_effects.h \
        include/vorn/effects/lut_effects.h include/vorn/effects/lens_effects.h \
        include/vorn/effects/face_effects.h | sed 's/.*"\(.*\)"/\1/')
# The grouped identifiers are named where their chains are declared.
ids+=" $(grep -ho 'EffectsArray("VORN[A-Za-z0-9]*"' src/effects/grouped/grouped_effects.cpp |
  sed 's/.*"\(.*\)"/\1/' | tr '\n' ' ')"
# The LUT effect finds the tables our script makes in the data folder.
python3 scripts/make-luts.py "$VORN_DATA_DIR/LUTs"

# Pixel-scale effects (sharpening, fine detail) vanish when the frame is shrunk to a tile: they
# are shown as a centre crop at full resolution, next to the same crop of the original.
pixelScale=" VORNSharpenEffect VORNApplyDetailsDEVELOPEffect VORNDetailsEffect VORNSmoothAreaEffect \
  VORNMicroStructureEffect VORNDenoiseEffect VORNDenoiseCoarseEffect VORNDenoiseLaplacianEffect \
  VORNDenoiseLaplacianNLBEffect VORNDenoiseStructureEffect VORNDenoiseDetailsEffect "
crop="${longSide}x$((longSide * 5 / 8))+0+0"

# render_tile FILE [--effect ID:SETTING] [--full|--as-is]: one tile, shrunk, cropped at full
# size, or as the source is.
render_tile() {
  local file="$1"; shift
  if [ "${*: -1}" = "--as-is" ]; then
    "$vorn" apply "${source:-$input}" "$file" --quality 85 "${@:1:$#-1}" >/dev/null
  elif [ "${*: -1}" = "--full" ]; then
    "$vorn" apply "${source:-$input}" "$file.tif" --depth 8 "${@:1:$#-1}" >/dev/null &&
      convert "$file.tif" -gravity center -crop "$crop" +repage -quality 85 "$file" &&
      rm -f "$file.tif"
  else
    "$vorn" apply "$input" "$file" --long-side "$longSide" --quality 85 "$@" >/dev/null
  fi
}

# The sample is a clean low-ISO frame: the denoisers get a copy with Gaussian noise added, shown
# beside them, so what they remove can be seen.
noisy="$tiles/noisy_input.tif"
convert "$input" -seed 7 -attenuate 0.6 +noise Gaussian -depth 8 "$noisy"

render_tile "$tiles/000_original.jpg"
render_tile "$tiles/001_original_crop.jpg" --full
source="$noisy" render_tile "$tiles/002_noisy_crop.jpg" --full
source="$portrait" render_tile "$tiles/003_portrait.jpg" --as-is
labels=("original" "original\n100 % crop" "noisy copy (denoiser input)\n100 % crop"
  "portrait (face effects input)")
files=("$tiles/000_original.jpg" "$tiles/001_original_crop.jpg" "$tiles/002_noisy_crop.jpg"
  "$tiles/003_portrait.jpg")
rows=""
failed=0
for id in $ids; do
  setting="${strong[$id]:-$(default_setting "$id")}"
  file="$tiles/$id.jpg"
  scale=() note="" from="$input"
  if [[ "$pixelScale" == *" $id "* ]]; then scale=(--full) note=" (100 % crop)"; fi
  if [[ "$id" == VORNDenoise* ]]; then from="$noisy" note=" (100 % crop of the noisy copy)"; fi
  if [[ "$id" == VORNFace* ]]; then from="$portrait" scale=(--as-is) note=" (on the portrait)"; fi
  if source="$from" render_tile "$file" --effect "$id:$setting" "${scale[@]}" 2>"$tiles/$id.err"; then
    rm -f "$tiles/$id.err"
    setting+="$note"
    labels+=("${id#VORN}\n${setting//,/ }")
    files+=("$file")
    rows+="<figure><img src=\"tiles/$id.jpg\" alt=\"$id\"><figcaption><b>$id</b><br>$setting</figcaption></figure>"$'\n'
  else
    echo "gallery: $id failed: $(cat "$tiles/$id.err")" >&2
    failed=$((failed + 1))
  fi
done

montage_args=()
# A label's % starts an escape in montage; %% is a literal one.
for i in "${!files[@]}"; do montage_args+=(-label "${labels[$i]//%/%%}" "${files[$i]}"); done
montage -font DejaVu-Sans -pointsize 11 "${montage_args[@]}" -tile 6x \
  -geometry 320x200+8+8 -background '#202020' -fill white -quality 88 "$out/contact_sheet.jpg"

cat >"$out/index.html" <<EOF
<!doctype html>
<html><head><meta charset="utf-8"><title>vorn effects gallery</title>
<style>
body { background: #202020; color: #ddd; font-family: sans-serif; }
figure { display: inline-block; margin: 6px; width: 330px; vertical-align: top; }
img { width: 320px; }
figcaption { font-size: 12px; word-wrap: break-word; }
</style></head><body>
<h1>Effects at a strong setting</h1>
<p>Input: $input, shown at $longSide pixels on the long side. Contact sheet:
<a href="contact_sheet.jpg">contact_sheet.jpg</a>.</p>
<figure><img src="tiles/000_original.jpg" alt="original"><figcaption><b>original</b></figcaption></figure>
<figure><img src="tiles/001_original_crop.jpg" alt="original crop"><figcaption><b>original</b>, 100 % crop</figcaption></figure>
<figure><img src="tiles/002_noisy_crop.jpg" alt="noisy copy"><figcaption><b>noisy copy</b> the denoisers start from, 100 % crop</figcaption></figure>
<figure><img src="tiles/003_portrait.jpg" alt="portrait"><figcaption><b>portrait</b> the face effects start from ($portrait)</figcaption></figure>
$rows</body></html>
EOF
echo "gallery: $out/contact_sheet.jpg and $out/index.html (${#files[@]} tiles, $failed failed)"
[ "$failed" -eq 0 ]
