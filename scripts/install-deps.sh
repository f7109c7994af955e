#!/usr/bin/env bash
# Installs every Debian package vorn needs to build, test and benchmark, or the packages named on
# the command line instead. Idempotent. The peer programs the benchmarks compare against come
# from scripts/install-bench-deps.sh.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libtbb-dev liblcms2-dev zlib1g-dev libboost-dev libboost-serialization-dev
  libopencv-imgproc-dev libhwy-dev
  libmagick++-dev libdeflate-dev
  libexiv2-dev libturbojpeg0-dev libjpeg62-turbo-dev libtiff-dev
  libraw-dev
  libopencv-objdetect-dev opencv-data liblensfun-dev liblensfun-data-v1 nlohmann-json3-dev
)
[ $# -eq 0 ] || packages=("$@")

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
