#!/usr/bin/env bash
# Converting the flattened image of a 4096 x 4096 document of 10 layers
# (the one bench/psd_bench.sh makes) to IFF with kimg, beside ImageMagick
# (convert FILE.psd[0], to its own MIFF) and oiiotool (to IFF). Best of
# three wall times each, in seconds. Usage: bench/psd_convert_bench.sh [BUILD_DIR]
set -euo pipefail
build="${1:-build/bench}"
doc="$PWD/$build/bench-10-layers.psd"
[ -s "$doc" ] || bash bench/psd_bench.sh "$build" > /dev/null
kimg="$PWD/$build/tools/kimg/kimg"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
best() {
  local best=""
  for _ in 1 2 3; do
    local start end
    start=$(date +%s%N)
    "$@" > /dev/null 2>&1
    end=$(date +%s%N)
    local t=$(((end - start) / 1000000))
    if [ -z "$best" ] || [ "$t" -lt "$best" ]; then best=$t; fi
  done
  awk -v ms="$best" 'BEGIN { printf "%.2f", ms / 1000 }'
}
export MAGICK_CONFIGURE_PATH="$PWD/bench/imagemagick"
printf '%-22s %s\n' "kimg convert" "$(best "$kimg" convert "$doc" "$dir/kimg.iff")"
printf '%-22s %s\n' "ImageMagick convert" "$(best convert "$doc[0]" "$dir/im.miff")"
printf '%-22s %s\n' "oiiotool" "$(best oiiotool "$doc" -o "$dir/oiio.iff")"
