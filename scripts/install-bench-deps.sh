#!/usr/bin/env bash
# Installs the programs the benchmarks measure vorn against: libvips' command-line tools,
# ImageMagick and LibRaw's sample programs. Only benchmarks use them; building and testing never
# do. Idempotent.
set -euo pipefail
exec bash "$(dirname "$0")/install-deps.sh" libvips-tools imagemagick libraw-bin
