#!/usr/bin/env bash
# Reading every layer's pixels and the flattened image of a 4096 x 4096
# document of 10 run-length layers (written by ImageMagick, kept in the
# build folder): kelp-image's benchmark beside psd-tools on the same file.
# Usage: bench/psd_bench.sh [BUILD_DIR] (default build/bench).
set -euo pipefail
build="${1:-build/bench}"
doc="$PWD/$build/bench-10-layers.psd"
if [ ! -s "$doc" ]; then
  # ImageMagick's default resource policy holds about one such picture.
  export MAGICK_CONFIGURE_PATH="$PWD/bench/imagemagick"
  tmp=$(mktemp -d)
  trap 'rm -rf "$tmp"' EXIT
  convert -size 4096x4096 gradient:white-navy -depth 8 "$tmp/flat.miff"
  for i in $(seq 1 10); do
    convert -size 4096x4096 "radial-gradient:hsl($((i * 36)),80%,60%)-hsl($((i * 36 + 90)),70%,30%)" \
      -fill "hsl($((i * 20)),90%,50%)" -draw "circle $((i * 300)),$((i * 250)) $((i * 300 + 400)),$((i * 250))" \
      -alpha set -channel A -evaluate multiply 0.$((i % 9 + 1)) +channel -depth 8 "$tmp/layer$i.miff"
  done
  # ImageMagick writes its first picture as the flattened image.
  convert "$tmp/flat.miff" $(for i in $(seq 1 10); do echo "$tmp/layer$i.miff"; done) -compress RLE "$doc.tmp.psd"
  mv "$doc.tmp.psd" "$doc"
fi
echo "document: $doc ($(stat -c %s "$doc") bytes)"
# Each repetition reads the document afresh: all layers held at once, and
# layer by layer (each given back before the next, as psd-tools' reader
# below drops each channel). Every run is shown, then the median.
KELP_PSD_BENCH_FILE="$doc" "$build/bench/kelp_bench_psd" --benchmark_repetitions=10 --benchmark_min_time=0.001 \
  --benchmark_format=csv 2>/dev/null | awk -F, 'NR > 1 && !/_mean|_median|_stddev|_cv/ {
    name = $1; gsub(/"|BM_|\/.*/, "", name)
    if (name != last) { printf "%s%s (ms):", last ? "\n" : "", name; last = name }
    printf " %.0f", $3 }
  /_median/ { median[++n] = $3 }
  END { printf "\nmedians: %.0f ms all at once, %.0f ms layer by layer\n", median[1], median[2] }'
/usr/bin/python3 - "$doc" <<'PY'
import sys, time
from psd_tools.psd import PSD
path = sys.argv[1]
best = None
for _ in range(2):
    start = time.perf_counter()
    psd = PSD.read(open(path, "rb"))
    h = psd.header
    info = psd.layer_and_mask_information.layer_info
    total = 0
    for rec, channels in zip(info.layer_records, info.channel_image_data):
        for ch in channels:
            total += len(ch.get_data(rec.right - rec.left, rec.bottom - rec.top, h.depth))
    total += sum(len(p) for p in psd.image_data.get_data(h))
    took = time.perf_counter() - start
    best = took if best is None else min(best, took)
print("psd-tools: %.0f ms (%d bytes of samples)" % (best * 1000, total))
PY
