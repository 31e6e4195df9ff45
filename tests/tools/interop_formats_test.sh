#!/bin/sh
# OpenEXR, WebP, Targa, BMP, Radiance and Netpbm against ImageMagick and
# OpenImageIO's tools, both ways: their files read through kimg as the
# pixels they read themselves, and kimg's files read in their tools as the
# pixels kimg wrote (exact for the lossless formats; Radiance, whose colours
# share one exponent, and lossy WebP within their encodings' error).
set -eu
kimg="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"
im=/usr/bin/convert

# differ A B: the number of pixels ImageMagick sees differ.
differ() { compare -metric AE "$1" "$2" null: 2>&1 || true; }
pixels_equal() {
  n=$(differ "$1" "$2")
  if [ "$n" != "0" ]; then
    echo "FAIL: $1 and $2 differ in $n pixels"
    exit 1
  fi
}
# within A B LEVELS: no sample differs by more than LEVELS of 255.
within() {
  pae=$(compare -metric PAE "$1" "$2" null: 2>&1 | sed 's/ .*//' || true)
  awk -v p="$pae" -v l="$3" -v a="$1" -v b="$2" \
    'BEGIN { if (p + 0 > l * 257 + 0.5) { print "FAIL: " a " and " b " differ by " p "/65535"; exit 1 } }'
}
# stat_of FILE CHANNEL: "min max" of a channel as kimg info --stats says it.
stat_of() { "$kimg" info --stats "$1" | awk -v c="$2" '$1 == c { print $3, $5 }'; }

$im -size 80x60 plasma:fractal -seed 7 -depth 8 src.png
$im -size 80x60 gradient:red-blue \( -size 80x60 gradient:white-black \) -alpha off \
  -compose CopyOpacity -composite -depth 8 alpha.png
$im src.png -colorspace gray -depth 8 grey.png

# Their files, read by kimg.
oiiotool -i src.png -d half -o half.exr
oiiotool -i src.png -d float --compression piz -o float.exr
oiiotool -i src.png -d half --tile 32 32 -o tiled.exr
# Premultiplied, as the format holds colour (through a TIFF: OpenImageIO
# premultiplies an sRGB PNG's colour in linear light).
$im alpha.png -define tiff:alpha=unassociated alpha-src.tif
oiiotool -i alpha-src.tif -d half -o alpha-half.exr
# Two parts: the first without colour, which the reader passes by.
oiiotool --pattern constant:color=3 80x60 1 --chnames Z -i src.png --siappend -d half -o parts.exr
$im src.png src-im.exr
$im src.png -define webp:lossless=true src.webp
$im alpha.png -define webp:lossless=true -define webp:exact=true alpha.webp
oiiotool -i src.png -o oiio.webp  # lossy: OpenImageIO writes no other
$im src.png src.tga
$im src.png -compress RLE rle.tga
$im src.png -type Palette pal.tga
$im src.png -orient TopLeft top.tga
$im alpha.png alpha.tga
oiiotool -i src.png -o oiio.tga
$im src.png src.bmp
$im src.png -type Palette -compress none pal.bmp
$im src.png -colors 16 -type Palette -compress none pal4.bmp
$im src.png -type Palette -compress RLE rle.bmp  # stb does not decode run-length BMP
$im grey.png -monochrome mono.bmp
$im alpha.png alpha.bmp
oiiotool -i src.png -o oiio.bmp
$im src.png src.ppm
$im grey.png grey.pgm
$im src.png -compress none plain.ppm
$im src.png -depth 16 deep.ppm
$im alpha.png alpha.pam
$im grey.png -monochrome mono.pbm
pamtopnm < alpha.pam > /dev/null  # netpbm itself takes ImageMagick's PAM
for f in half.exr float.exr tiled.exr parts.exr src-im.exr src.webp top.tga \
    oiio.tga src.bmp oiio.bmp src.ppm plain.ppm; do
  "$kimg" convert "$f" "$f.iff"
  "$kimg" convert "$f.iff" "$f.png"
  # Halves and floats come out at 16 bits: within a tenth of an 8-bit step.
  n=$(compare -metric AE -fuzz 0.1% "$f.png" src.png null: 2>&1 || true)
  [ "$n" = 0 ] || { echo "FAIL: $f.png and src.png differ in $n pixels"; exit 1; }
done
# ImageMagick stores a Targa picture's top row first whatever origin its
# header gives, and reads it back as stored: its files are judged by what it
# reads with the header's orientation applied.
for f in src.tga rle.tga pal.tga; do
  "$kimg" convert "$f" "$f.png"
  $im "$f" -auto-orient "im-$f.png"
  pixels_equal "$f.png" "im-$f.png"
done
$im oiio.webp oiio-im.png
"$kimg" convert oiio.webp oiio.webp.png
pixels_equal oiio.webp.png oiio-im.png
for f in alpha.webp alpha.bmp alpha.pam; do
  "$kimg" convert "$f" "$f.png"
  pixels_equal "$f.png" alpha.png
done
# Premultiplied halves to straight colour: the same alpha, and the same
# colour where it shows.
"$kimg" convert alpha-half.exr alpha-half.png
for f in alpha-half.png alpha.png; do
  $im "$f" -alpha extract -depth 16 "$f.a.pgm"
  $im "$f" -background black -alpha remove -depth 16 "$f.c.ppm"
done
within alpha-half.png.a.pgm alpha.png.a.pgm 0.5
within alpha-half.png.c.ppm alpha.png.c.ppm 1
"$kimg" convert alpha.tga alpha.tga.png
$im alpha.tga -auto-orient im-alpha.tga.png
pixels_equal alpha.tga.png im-alpha.tga.png
"$kimg" convert grey.pgm grey.pgm.png
pixels_equal grey.pgm.png grey.png
if "$kimg" convert rle.bmp rle.png 2> rle.txt; then echo "FAIL: run-length BMP read"; exit 1; fi
grep -q "run-length" rle.txt
for f in pal.bmp pal4.bmp mono.bmp mono.pbm; do
  "$kimg" convert "$f" "$f.png"
  pixels_equal "$f.png" "$f"
done
# 16 bits a sample come to IFF's 8 by their high byte, as 16-bit PNG does.
$im src.png -depth 16 deep.png
"$kimg" convert deep.ppm deep-ppm.png
"$kimg" convert deep.png deep-png.png
pixels_equal deep-ppm.png deep-png.png
# Radiance: ImageMagick's file of the picture, within a level.
$im src.png src.hdr
"$kimg" convert src.hdr src.hdr.png
within src.hdr.png src.png 2  # one step of an RGBE mantissa is 2 levels at most
# Bright values clamp to 255; OpenImageIO's Z distances become depth -1/Z.
oiiotool --pattern constant:color=2.5,0.4,0 16x8 3 -o bright.hdr
# Light past 1 is kept as it is read, and clamped only where a file holds integers.
[ "$(stat_of bright.hdr red)" = "2.5 2.5" ]
"$kimg" convert bright.hdr bright.png
[ "$(stat_of bright.png red)" = "65535 65535" ]
oiiotool --pattern constant:color=0.2,0.4,0.6,1,4 32x16 5 --chnames R,G,B,A,Z -d float -o z.exr
"$kimg" convert z.exr z.iff
[ "$(stat_of z.iff depth)" = "-0.25 -0.25" ]
[ "$(stat_of z.iff red)" = "13107 13107" ]  # 0.2 of 16 bits: floats keep their precision

# Our files, in their readers: the pixels of our SGI of the picture.
"$kimg" pattern p.iff --size 96x64
"$kimg" pattern pa.iff --size 96x64 --alpha
"$kimg" pattern pz.iff --size 96x64 --alpha --depth
"$kimg" convert p.iff p.sgi
"$kimg" convert p.iff p.png
"$kimg" convert pa.iff pa.png
for ext in exr webp tga bmp ppm pam; do
  "$kimg" convert p.iff "p.$ext"
  $im "p.$ext" -auto-orient -depth 8 "im-p.$ext.png"
  if [ "$ext" = exr ]; then
    within "im-p.$ext.png" p.png 1  # ImageMagick takes halves down to 8 bits by truncating
  else
    pixels_equal "im-p.$ext.png" p.png
  fi
  if [ "$ext" != pam ]; then  # OpenImageIO does not read PAM
    oiiotool "p.$ext" -o "oiio-p.$ext.png"
    pixels_equal "oiio-p.$ext.png" p.png
  fi
done
# With alpha: straight colour in WebP, TGA, BMP and PAM, as ImageMagick
# reads them; premultiplied colour in EXR, and in TIFF tagged so, as IFF
# holds it. OpenImageIO's BMP and WebP readers take the colour as
# unpremultiplied and multiply it by alpha, so ImageMagick alone judges those.
"$kimg" convert pa.iff pa.tif
for ext in exr webp tga bmp pam; do
  "$kimg" convert pa.iff "pa.$ext"
  if [ "$ext" = exr ]; then  # half floats, within half a level
    oiiotool --no-autopremult "pa.$ext" pa.tif --fail 0.0019 --diff > /dev/null
  else
    $im "pa.$ext" -auto-orient -depth 8 "im-pa.$ext.png"
    pixels_equal "im-pa.$ext.png" pa.png
  fi
  if [ "$ext" = tga ]; then
    oiiotool --iconfig oiio:UnassociatedAlpha 1 "pa.$ext" -o "oiio-pa.$ext.png"
    pixels_equal "oiio-pa.$ext.png" pa.png
  fi
done
"$kimg" convert pa.iff pa.ppm
[ "$(head -c 2 pa.ppm)" = P6 ]  # PPM holds no alpha: left out
"$kimg" convert p.iff p.pgm
[ "$(head -c 2 p.pgm)" = P5 ]
pgmtopgm < p.pgm > /dev/null
"$kimg" convert p.iff p.hdr
$im p.hdr im-p.hdr.png
within im-p.hdr.png p.png 2
oiiotool p.hdr -o oiio-p.hdr.png
within oiio-p.hdr.png p.png 2
# Lossy WebP: as close as ImageMagick's own encode at the same quality.
"$kimg" convert p.iff --option Quality=80 lossy.webp
$im p.png -quality 80 im-lossy.webp
ours=$(compare -metric PSNR p.png lossy.webp null: 2>&1 || true)
theirs=$(compare -metric PSNR p.png im-lossy.webp null: 2>&1 || true)
awk -v a="$ours" -v b="$theirs" 'BEGIN { if (a + 1 < b) { print "FAIL: WebP PSNR " a " against " b; exit 1 } }'
# Depth: an IFF depth channel is a Z channel of distances -1/z, and comes back.
"$kimg" convert pz.iff pz.exr
oiiotool --info -v pz.exr | grep -q "channel list: R (half), G (half), B (half), A (half), Z (float)"
"$kimg" convert pz.exr pz-back.iff
[ "$(stat_of pz-back.iff depth)" = "$(stat_of pz.iff depth)" ]
zmax=$(oiiotool --stats pz.exr | awk '/Stats Max/ { print $NF == "(float)" ? $(NF-1) : $NF }')
dmax=$(stat_of pz.iff depth | awk '{ print -1 / $2 }')  # the farthest
awk -v a="$zmax" -v b="$dmax" 'BEGIN { if (a - b > 0.001 * b || b - a > 0.001 * b) { print "FAIL: Z " a " against " b; exit 1 } }'
# Options: float samples and PIZ.
"$kimg" convert p.iff --option "Float Samples=1" --option Compression=4 pf.exr
oiiotool --info -v pf.exr | grep -q 'compression: "piz"'
oiiotool --info -v pf.exr | grep -q "3 channel, float openexr"

# Animated WebP: ImageMagick's frames one by one, and IFF images as frames.
$im -size 40x30 xc:red xc:lime xc:blue -define webp:lossless=true three.webp
"$kimg" convert three.webp --frame 1 three-1.png
pixels_equal three-1.png 'three.webp[1]'
"$kimg" convert three.webp three.iff
[ "$("$kimg" info three.iff | grep -c '^  size\|^  frame ')" = 3 ]
"$kimg" convert three.iff again.webp
[ "$(identify again.webp | wc -l)" = 3 ]
pixels_equal 'again.webp[2]' 'three.webp[2]'

"$kimg" formats | grep -q "^exr .* rw "
"$kimg" info three.webp | grep -q "frames       3"
echo "interop formats: all checks passed"
