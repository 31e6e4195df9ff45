#!/usr/bin/env bash
# Whole-process conversion times of kimg against OpenImageIO's oiiotool and
# ImageMagick's convert, on the same 4096 x 4096 RGBA files. The peers cannot
# read or write IFF, so they convert the same input to SGI (an uncompressed
# IFF's nearest kin both of them write) and from the SGI copy of the picture.
# Usage: bench/convert_bench.sh [BUILD_DIR] (default build/bench); the best
# of three runs of each, in seconds.
set -euo pipefail
build="${1:-build/bench}"
kimg="$build/tools/kimg/kimg"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

"$kimg" pattern "$dir/big.iff" --size 4096x4096 --alpha --compression rle
"$kimg" convert "$dir/big.iff" "$dir/big.sgi" --compression none
convert "$dir/big.sgi" "$dir/big.png"
convert "$dir/big.sgi" -alpha off -quality 90 "$dir/big.jpg"
convert "$dir/big.sgi" -compress zip "$dir/big.tif"
oiiotool "$dir/big.sgi" -d half --compression zip -o "$dir/big.exr"
convert "$dir/big.sgi" -define webp:lossless=true "$dir/big.webp"

best() {
  local times=""
  for _ in 1 2 3; do
    local start end
    start=$(date +%s%N)
    "$@" > /dev/null 2>&1
    end=$(date +%s%N)
    times="$times $((end - start))"
  done
  echo "$times" | awk '{ b = $1; for (i = 2; i <= NF; i++) if ($i < b) b = $i; printf "%.3f", b / 1e9 }'
}

printf '%-16s %8s %8s %8s\n' "conversion" "kimg" "oiiotool" "convert"
row() {
  printf '%-16s %8s %8s %8s\n' "$1" "$(best "$kimg" convert "$2" "$3")" "$(best oiiotool "$4" -o "$5")" \
    "$(best convert "$4" "$5")"
}
row "PNG to IFF" "$dir/big.png" "$dir/o.iff" "$dir/big.png" "$dir/o.sgi"
printf '%-16s %8s\n' "  stored IFF" "$(best "$kimg" convert "$dir/big.png" "$dir/o.iff" --compression none)"
row "IFF to PNG" "$dir/big.iff" "$dir/o.png" "$dir/big.sgi" "$dir/o.png"
row "JPEG to IFF" "$dir/big.jpg" "$dir/o.iff" "$dir/big.jpg" "$dir/o.sgi"
printf '%-16s %8s\n' "  stored IFF" "$(best "$kimg" convert "$dir/big.jpg" "$dir/o.iff" --compression none)"
row "TIFF to IFF" "$dir/big.tif" "$dir/o.iff" "$dir/big.tif" "$dir/o.sgi"
printf '%-16s %8s\n' "  stored IFF" "$(best "$kimg" convert "$dir/big.tif" "$dir/o.iff" --compression none)"
row "EXR to IFF" "$dir/big.exr" "$dir/o.iff" "$dir/big.exr" "$dir/o.sgi"
printf '%-16s %8s\n' "  stored IFF" "$(best "$kimg" convert "$dir/big.exr" "$dir/o.iff" --compression none)"
row "IFF to EXR" "$dir/big.iff" "$dir/o.exr" "$dir/big.sgi" "$dir/o.exr"
row "WebP to IFF" "$dir/big.webp" "$dir/o.iff" "$dir/big.webp" "$dir/o.sgi"
printf '%-16s %8s\n' "  stored IFF" "$(best "$kimg" convert "$dir/big.webp" "$dir/o.iff" --compression none)"
