#!/usr/bin/env bash
# kimg convert against libvips' `vips copy` (and OpenImageIO's oiiotool
# where libvips has no reader, IFF), whole processes on the same 4096 x 4096
# inputs: the median of five runs' wall seconds and peak memory of each, and
# the ratio of the medians. Then the peak memory of an 8192 x 8192 PNG into a
# TIFF, which streams through both a band at a time.
# Usage: bench/vips_bench.sh [BUILD_DIR] (default build/release). Needs vips
# (libvips-tools), oiiotool (openimageio-tools) and GNU time.
set -euo pipefail
build="${1:-build/release}"
kimg="$(cd "$build" && pwd)/tools/kimg/kimg"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

# A picture with detail everywhere, so that no codec has an easy time.
vips gaussnoise noise.v 4096 4096 --mean 128 --sigma 40
vips xyz xy.v 4096 4096
vips extract_band xy.v x.v 0
vips extract_band xy.v y.v 1
vips linear x.v xs.v 0.0622 0 --uchar
vips linear y.v ys.v 0.0622 0 --uchar
vips cast noise.v n.v uchar
vips bandjoin "xs.v ys.v n.v" big.v
vips copy big.v big.png
vips copy big.v "big.jpg[Q=90]"
vips copy big.v "big.tif[compression=deflate]"
"$kimg" convert big.png big.iff -q
vips embed big.v huge.v 0 0 8192 8192 --extend mirror
vips copy huge.v huge.png

# run5 COMMAND...: "median-seconds median-peak-MiB" of five runs.
run5() {
  local times=() peaks=()
  for _ in 1 2 3 4 5; do
    /usr/bin/time -f "%e %M" -o t.txt "$@" > /dev/null 2>&1
    read -r t p < t.txt
    times+=("$t")
    peaks+=("$p")
  done
  local t p
  t=$(printf '%s\n' "${times[@]}" | sort -g | sed -n 3p)
  p=$(printf '%s\n' "${peaks[@]}" | sort -g | sed -n 3p)
  echo "$t $((p / 1024))"
}

printf '%-14s %10s %10s %8s %12s %12s\n' "conversion" "kimg s" "peer s" "ratio" "kimg MiB" "peer MiB"
row() {
  local name="$1" ours theirs
  shift
  ours=$(run5 "$kimg" convert -q "$1" "$2")
  shift 2
  theirs=$(run5 "$@")
  read -r ot om <<< "$ours"
  read -r tt tm <<< "$theirs"
  printf '%-14s %10s %10s %8s %12s %12s\n' "$name" "$ot" "$tt" "$(awk -v a="$ot" -v b="$tt" 'BEGIN { printf "%.2f", a / b }')" \
    "$om" "$tm"
}
row "JPEG to PNG" big.jpg o1.png vips copy big.jpg v1.png
row "TIFF to JPEG" big.tif o2.jpg vips copy big.tif "v2.jpg[Q=75]"
row "PNG to TIFF" big.png o3.tif vips copy big.png "v3.tif[compression=deflate]"
row "PNG to JPEG" big.png o4.jpg vips copy big.png "v4.jpg[Q=75]"
row "IFF to PNG" big.iff o5.png oiiotool big.iff -o v5.png
echo "peer: vips copy; for IFF, oiiotool"
row "8192 PNG->TIFF" huge.png o6.tif vips copy huge.png "v6.tif[compression=deflate]"
