#!/usr/bin/env bash
# Sets up and builds kelp-image, then runs kimg on the bundled sample
# pictures and on pictures it makes itself.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build
# kimg and the plug-ins alone: the suite needs more (scripts/test.sh installs it).
cmake --preset default -DKELP_BUILD_TESTS=OFF >/dev/null
cmake --build --preset default
kimg=build/default/tools/kimg/kimg
out=build/default/demo
mkdir -p "$out"

set -x
"$kimg" info --stats samples/*.iff
"$kimg" pattern "$out/pattern.iff" --size 1920x1080 --alpha --depth --bytes 2
"$kimg" convert "$out/pattern.iff" "$out/topdown.iff" --topdown --tile 256x32
"$kimg" info --stats "$out/topdown.iff"
"$kimg" convert "$out/pattern.iff" "$out/small.iff" --resize 480x270 --filter lanczos
"$kimg" info --stats "$out/small.iff"
"$kimg" convert "$out/pattern.iff" "$out/pattern.sgi"
"$kimg" info --stats "$out/pattern.sgi"
"$kimg" formats
"$kimg" convert "$out/pattern.iff" "$out/pattern.png"
"$kimg" convert "$out/pattern.png" "$out/pattern.jpg"
"$kimg" info "$out/pattern.png" "$out/pattern.jpg"
# Depth travels through OpenEXR as a Z channel of distances, and comes back.
"$kimg" convert "$out/pattern.iff" "$out/pattern.exr"
"$kimg" convert "$out/pattern.exr" "$out/from-exr.iff"
"$kimg" info --stats "$out/from-exr.iff"
"$kimg" convert "$out/pattern.iff" "$out/pattern.webp" --option Quality=85
"$kimg" info "$out/pattern.webp"
"$kimg" convert "$out/pattern.sgi" "$out/from-sgi.iff"
"$kimg" info "$out/from-sgi.iff"
"$kimg" convert "$out/pattern.iff" - --resize 64x36 | "$kimg" info --stats -
"$kimg" depth "$out/pattern.iff" "$out/depth.iff"
"$kimg" info --stats "$out/depth.iff"
"$kimg" chunks "$out/topdown.iff" > "$out/chunks.txt"
head -n 12 "$out/chunks.txt"
# A layered Photoshop document: its layer tree, its flattened image and one layer.
"$kimg" psd tests/photoshop/data/clipping-mask.psd
"$kimg" convert tests/photoshop/data/clipping-mask.psd "$out/clipping-mask.png"
"$kimg" convert tests/photoshop/data/clipping-mask.psd --layer "Shape 4" "$out/shape-4.png"
"$kimg" info "$out/clipping-mask.png" "$out/shape-4.png"
# A movie of the sample pictures (and the pattern, resized to their size),
# described and written back out as frames.
"$kimg" convert "$out/pattern.iff" "$out/frame.0001.iff" --resize "$("$kimg" info samples/pattern-16bit.iff | awk '/size/ {print $2 "x" $4}')"
"$kimg" movie "$out/samples.avi" samples/pattern-16bit.iff samples/pattern-rgba-depth.iff "$out/frame.0001.iff" --rate 2 --codec MJPG
"$kimg" info "$out/samples.avi"
"$kimg" movie "$out/samples.avi" --extract "$out/movie-frame.####.png"
"$kimg" info "$out/movie-frame.0003.png"
