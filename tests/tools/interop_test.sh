#!/bin/sh
# Every plug-in format against ImageMagick and OpenImageIO's tools: their
# files convert through kimg to IFF and back with no change of pixels (JPEG:
# at least as close as their own re-encode at the same quality), and what
# kimg writes reads in those tools as the same pixels.
set -eu
kimg="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
im=/usr/bin/convert

# pixels_equal A B: ImageMagick sees no pixel differ.
pixels_equal() {
  n=$(compare -metric AE "$1" "$2" null: 2>&1 || true)
  if [ "$n" != "0" ]; then
    echo "FAIL: $1 and $2 differ in $n pixels"
    exit 1
  fi
}

# looks_equal A B: the same alpha, and colour as it shows (over black, as
# premultiplied colour holds it) a step apart at most: what a picture keeps
# through a premultiplied format of 8 bits.
looks_equal() {
  $im "$1" -alpha extract a1.pgm
  $im "$2" -alpha extract a2.pgm
  pixels_equal a1.pgm a2.pgm
  $im "$1" -background black -alpha remove -depth 8 c1.ppm
  $im "$2" -background black -alpha remove -depth 8 c2.ppm
  n=$(compare -metric AE -fuzz 0.5% c1.ppm c2.ppm null: 2>&1 || true)
  if [ "$n" != "0" ]; then
    echo "FAIL: $1 and $2 look different in $n pixels"
    exit 1
  fi
}

# Their files, through IFF and back.
$im -size 80x60 plasma:fractal -seed 7 -depth 8 src.png
$im -size 80x60 gradient:red-blue \( -size 80x60 gradient:white-black \) -alpha off \
  -compose CopyOpacity -composite -depth 8 alpha.png
$im src.png -colorspace gray grey.png
$im src.png src.tif
$im src.png -compress zip deflate.tif
$im src.png -define tiff:tile-geometry=32x32 tiled.tif
$im src.png src.sgi
$im src.png src.gif
$im src.png -quality 90 src.jpg
oiiotool -i src.png -o oiio.png
oiiotool -i src.png -o oiio.tif
oiiotool -i alpha.png -o oiio-alpha.tif
for f in src.png grey.png src.tif deflate.tif tiled.tif src.sgi oiio.png oiio.tif; do
  "$kimg" convert "$f" "$f.iff"
  "$kimg" convert "$f.iff" "back-$f"
  pixels_equal "$f" "back-$f"
done
# Straight colour through IFF's premultiplied colour: it looks the same.
"$kimg" convert alpha.png alpha.iff
"$kimg" convert alpha.iff back-alpha.png
looks_equal alpha.png back-alpha.png
# A TIFF of straight colour through IFF comes back premultiplied, tagged so:
# OpenImageIO sees the same picture.
"$kimg" convert oiio-alpha.tif a.iff
"$kimg" convert a.iff back-a.tif
oiiotool --info -v back-a.tif | grep -q 'oiio:UnassociatedAlpha' && { echo "FAIL: back-a.tif says straight"; exit 1; }
oiiotool oiio-alpha.tif back-a.tif --fail 0.005 --diff > /dev/null
# GIF reads exactly; written, it takes the 216-colour cube.
"$kimg" convert src.gif gif.iff
"$kimg" convert gif.iff gif.sgi
pixels_equal src.gif gif.sgi
# JPEG: no further from the original than ImageMagick's own re-encode.
"$kimg" convert src.jpg jpg.iff
"$kimg" convert jpg.iff back.jpg
$im src.jpg -quality 90 again.jpg
ours=$(compare -metric PSNR src.jpg back.jpg null: 2>&1 || true)
theirs=$(compare -metric PSNR src.jpg again.jpg null: 2>&1 || true)
awk -v a="$ours" -v b="$theirs" 'BEGIN { if (a + 1 < b) { print "FAIL: JPEG PSNR " a " against " b; exit 1 } }'

# Our files, in their readers: the same pixels as our SGI of the picture.
"$kimg" pattern p.iff --size 96x64
"$kimg" pattern pa.iff --size 96x64 --alpha
"$kimg" convert p.iff p.sgi
"$kimg" convert pa.iff pa.sgi
for ext in png tif; do
  "$kimg" convert p.iff "p.$ext"
  pixels_equal "p.$ext" p.sgi
  oiiotool "p.$ext" p.sgi --diff > /dev/null
  "$kimg" convert pa.iff "pa.$ext"
done
# PNG and SGI hold straight colour, made from IFF's premultiplied colour
# alike; TIFF keeps it premultiplied, and says so.
pixels_equal pa.png pa.sgi
oiiotool --no-autopremult pa.png pa.sgi --diff > /dev/null
oiiotool pa.tif pa.png --fail 0.005 --diff > /dev/null
"$kimg" convert p.iff p.jpg
awk -v a="$(compare -metric PSNR p.sgi p.jpg null: 2>&1 || true)" 'BEGIN { if (a < 35) { print "FAIL: JPEG PSNR " a; exit 1 } }'
oiiotool p.jpg --info > /dev/null

# Frames: ImageMagick's 5-page TIFF and 5-frame GIF, frame by frame, and
# five IFF images into one file of each.
$im -size 40x30 xc:red xc:lime xc:blue xc:yellow xc:white five.tif
$im -size 40x30 xc:red xc:lime xc:blue xc:yellow xc:white five.gif
for f in five.tif five.gif; do
  "$kimg" convert "$f" --frame 2 "$f-2.png"
  pixels_equal "$f-2.png" "$f[2]"
  "$kimg" convert "$f" "$f.iff"
  [ "$("$kimg" info "$f.iff" | grep -c '^  size\|^  frame ')" = 5 ]
  "$kimg" convert "$f.iff" "again-$f"
  [ "$(identify "again-$f" | wc -l)" = 5 ]
  pixels_equal "again-$f[4]" "$f[4]"
done
# What kimg says of plug-in formats.
"$kimg" formats | grep -q "^png .* rw "
"$kimg" info src.png | grep -q "format       PNG (png)"
"$kimg" info five.tif | grep -q "frames       5"
echo "interop: all checks passed"
