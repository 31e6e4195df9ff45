#!/bin/sh
# kimg writes a header, reads it back, walks its chunks, and fails cleanly.
set -eu
kimg="$1"
samples="$2"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

"$kimg" create "$dir/a.iff" --size 100x50 --type rgbz --bytes 2 --compression qrl --dpi 200 \
  --origin 3,-4 --ratio 2:3 --field NOTE=hi --images 2
"$kimg" info "$dir/a.iff" > "$dir/info.txt"
grep -q "size         100 x 50" "$dir/info.txt"
grep -q "type         RGB without Alpha, ZBuffer (5)" "$dir/info.txt"
grep -q "samples      16-bit integers, 2 bytes a channel" "$dir/info.txt"
grep -q "compression  QRL" "$dir/info.txt"
grep -q "tiles        2" "$dir/info.txt"
grep -q "origin       3, -4" "$dir/info.txt"
grep -q "pixel ratio  2:3" "$dir/info.txt"
grep -q "dpi          200" "$dir/info.txt"
grep -q 'field NOTE   "hi"' "$dir/info.txt"
grep -q "frame 1      100 x 50" "$dir/info.txt"

"$kimg" chunks "$dir/a.iff" > "$dir/chunks.txt"
grep -q "^         0  FOR4 CIMG" "$dir/chunks.txt"
grep -q "^        24    TBHD  size 32" "$dir/chunks.txt"

"$kimg" info --stats "$samples"/*.iff > /dev/null

# A picture made, converted through the line reader and writer, and read back.
"$kimg" pattern "$dir/p.iff" --size 200x150 --alpha --depth --bytes 2
"$kimg" convert "$dir/p.iff" "$dir/q.iff" --topdown --tile 48x40 --compression none
"$kimg" info --stats "$dir/p.iff" | grep -v "^$dir" | grep -v compression | grep -v tiles > "$dir/p.txt"
"$kimg" info --stats "$dir/q.iff" | grep -v "^$dir" | grep -v compression | grep -v tiles > "$dir/q.txt"
cmp "$dir/p.txt" "$dir/q.txt"
"$kimg" info "$dir/q.iff" | grep -q "tiles        20"
# Resizing through a zoom filter, and the filter list with a program of our own.
"$kimg" convert "$dir/p.iff" "$dir/r.iff" --resize 50x30 --filter lanczos --blur 1,1
"$kimg" info "$dir/r.iff" | grep -q "size         50 x 30"
mkdir -p "$dir/work/filters"
printf 'radius = 1\ny = 1 - abs(x)\n' > "$dir/work/filters/tent"
KELP_WORK="$dir/work" "$kimg" filters | grep -q "tent"
KELP_WORK="$dir/work" "$kimg" convert "$dir/p.iff" "$dir/t.iff" --resize 100x75 --filter tent
if "$kimg" convert "$dir/p.iff" "$dir/x.iff" --filter gauss 2> /dev/null; then exit 1; fi
# The depth channel as a grey picture.
"$kimg" depth "$dir/p.iff" "$dir/d.iff"
"$kimg" info --stats "$dir/d.iff" | grep -q "green        min 5[45]  max 255"
if "$kimg" depth "$samples/pattern-16bit.iff" "$dir/x.iff" 2> /dev/null; then exit 1; fi
# SGI files both ways, and ImageMagick agrees about ours where it is installed.
"$kimg" convert "$dir/p.iff" "$dir/p.sgi"
"$kimg" info "$dir/p.sgi" | grep -q "compression  run-length"
"$kimg" info "$dir/p.sgi" | grep -q "2 bytes a channel"
"$kimg" convert "$dir/p.sgi" "$dir/s.iff" --resize 100x75
"$kimg" info "$dir/s.iff" | grep -q "size         100 x 75"
"$kimg" convert "$dir/p.iff" "$dir/v.rgb" --compression none --resize 40x30
"$kimg" info --stats "$dir/v.rgb" | grep -q "compression  verbatim"
if [ -x /usr/bin/convert ]; then /usr/bin/convert "$dir/v.rgb" "$dir/v.ppm"; fi
if "$kimg" convert "$dir/missing.iff" "$dir/x.iff" 2> "$dir/err.txt"; then exit 1; fi
grep -q "missing.iff" "$dir/err.txt"

# 16-bit SGI stays 16-bit both ways.
"$kimg" convert "$dir/p.sgi" "$dir/p16.iff"
"$kimg" info "$dir/p16.iff" | grep -q "2 bytes a channel"
"$kimg" convert "$dir/p.sgi" "$dir/p16b.sgi" --resize 20x15 --filter gauss
"$kimg" info "$dir/p16b.sgi" | grep -q "2 bytes a channel"

# A 16-bit resize puts every channel where ImageMagick's resize of the same
# picture puts it: the means agree within a hundredth of the range.
"$kimg" pattern "$dir/w.iff" --size 120x90 --bytes 2
"$kimg" convert "$dir/w.iff" "$dir/w.sgi"
"$kimg" convert "$dir/w.iff" "$dir/ws.sgi" --resize 60x45 --filter gauss
"$kimg" convert "$dir/w.sgi" "$dir/ws2.sgi" --resize 60x45 --filter gauss
/usr/bin/convert "$dir/w.sgi" -filter Gaussian -resize '60x45!' -depth 16 "$dir/wi.sgi"
means() { "$kimg" info --stats "$1" | awk '/mean/ {print $1, $7}'; }
means "$dir/wi.sgi" > "$dir/wi.txt"
for ours in ws ws2; do
  means "$dir/$ours.sgi" | paste -d' ' - "$dir/wi.txt" |
    awk '{ d = $2 - $4; if ($1 != $3 || d > 655 || d < -655) { print "channel", $1, $2, "vs", $4; bad = 1 } }
         END { exit bad }'
done

# Standard input and output, and commands, for inputs and outputs alike.
"$kimg" convert - "$dir/in.iff" < "$dir/p.iff"
"$kimg" convert "$dir/p.iff" - | "$kimg" info - | grep -q "size         200 x 150"
"$kimg" info "pipe:cat $dir/in.iff" | grep -q "size         200 x 150"
"$kimg" convert "pipe:cat $dir/p.sgi" "pipe:cat > $dir/piped.sgi"
"$kimg" info "$dir/piped.sgi" | grep -q "size         200 x 150"
"$kimg" chunks - < "$dir/p.iff" | grep -q "TBHD"
"$kimg" pattern - --size 8x8 | "$kimg" info - | grep -q "size         8 x 8"

# A file converted onto itself keeps its pixels.
cp "$dir/p.iff" "$dir/same.iff"
"$kimg" convert "$dir/same.iff" "$dir/same.iff" --compression none
"$kimg" info --stats "$dir/same.iff" | grep -v "^$dir" | grep -v compression > "$dir/same.txt"
"$kimg" info --stats "$dir/p.iff" | grep -v "^$dir" | grep -v compression | cmp - "$dir/same.txt"

# The command line itself.
"$kimg" --version | grep -q "^kimg [0-9]"
"$kimg" convert --help | grep -q "qrl does not keep the red channel"
if "$kimg" > "$dir/help.txt"; then exit 1; fi
grep -q "Usage: kimg" "$dir/help.txt"
echo "kimg: all checks passed"
