#!/usr/bin/env bash
# Installs the programs the benchmarks measure vorn against: libvips' command-line tools,
# ImageMagick and LibRaw's sample programs. Only benchmarks use them; building and testing never
# do. Idempotent.
set -euo pipefail

packages=(libvips-tools imagemagick libraw-bin)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
