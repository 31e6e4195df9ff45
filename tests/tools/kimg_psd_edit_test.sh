#!/bin/sh
# Documents written by kimg psd: new ones of 8 and 16 bits with a
# background, layers, a set, an alpha channel, a blend key and an opacity
# changed and a layer deleted, opened by psd-tools, ImageMagick and GIMP;
# every test document saved again and read back by psd-tools; edits in
# place; failed saves.
set -eu
kimg=$1
dump=$2
here=$3
python=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
cd "$work"

convert -size 20x10 gradient:red-blue top.png
convert -size 16x12 xc:'rgba(0,200,0,0.5)' inset.png
convert -size 64x48 gradient:black-white -colorspace gray -depth 8 grey.png
for depth in 8 16; do
  "$kimg" psd --new 64 48 --depth $depth -o new$depth.psd --add-set S --add-to-set S=inset --add-layer inset=inset.png \
    --add-layer top=top.png --add-layer gone=top.png --add-alpha mask=grey.png --blend top=mul --opacity inset=128 \
    --delete-layer gone
  $python - new$depth.psd $depth <<'PY'
import sys
import numpy as np
from PIL import Image
from psd_tools import PSDImage
path, depth = sys.argv[1], int(sys.argv[2])
psd = PSDImage.open(path)
got = [(l.name, l.kind, l.bbox, l.blend_mode.value, l.opacity) for l in psd.descendants()]
want = [("Background", "pixel", (0, 0, 64, 48), b"norm", 255), ("S", "group", (0, 0, 16, 12), b"pass", 255),
        ("inset", "pixel", (0, 0, 16, 12), b"norm", 128), ("top", "pixel", (0, 0, 20, 10), b"mul ", 255)]
if psd.depth != depth or got != want:
    sys.exit("FAIL: %s: %s" % (path, got))
if list(np.asarray(psd[2].topil())[0, 0]) != [255, 0, 0, 255] or list(np.asarray(psd[1][0].topil())[5, 5]) != [0, 200, 0, 128]:
    sys.exit("FAIL: %s: layer pixels" % path)
if np.asarray(psd[0].topil().convert("RGB")).min() < 255:
    sys.exit("FAIL: %s: the background is not white" % path)
# The flattened image is the composite of the layers, as psd-tools makes it.
flat = np.asarray(psd.topil()).astype(int)[..., :3]
made = np.asarray(psd.composite()).astype(int)[..., :3]
if np.abs(flat - made).max() > 1:
    sys.exit("FAIL: %s: the flattened image differs from the layers' composite by %d" % (path, np.abs(flat - made).max()))
record = psd._record
planes = record.image_data.get_data(record.header)
grey = np.asarray(Image.open("grey.png").convert("L")).astype(np.uint32)
alpha = np.frombuffer(planes[3], dtype=">u2" if depth == 16 else np.uint8).reshape(48, 64)
if not np.array_equal(alpha, grey * (257 if depth == 16 else 1)):
    sys.exit("FAIL: %s: the alpha channel" % path)
PY
  [ "$(identify new$depth.psd | wc -l)" = 4 ] || fail "ImageMagick sees $(identify new$depth.psd)"
  convert "new$depth.psd[3]" -depth 8 txt:- > top.txt
  grep -q '^0,0: (255,0,0,255)' top.txt || fail "ImageMagick's top layer"
  # ImageMagick folds a layer's opacity into its alpha: 128 of 255 over 128.
  convert "new$depth.psd[2]" -depth 8 txt:- > inset.txt
  grep -q '^5,5: (0,200,0,65)' inset.txt || fail "ImageMagick's inset layer: $(sed -n 2p inset.txt)"
done
# A picture converted to a document: one background layer holding it.
"$kimg" convert top.png layered.psd
if command -v gimp-console > /dev/null; then
  gimp-console -i -d -f -b "(begin $(cat "$here/gimp_psd_report.scm")
    (psd-report \"new8.psd\" \"gimp8.txt\") (psd-report \"new16.psd\" \"gimp16.txt\")
    (psd-report \"layered.psd\" \"gimp-layered.txt\"))" -b '(gimp-quit 0)' > gimp.log 2>&1 || true
  printf 'layer 0 Background group=0 size=20x10 opacity=100.0 pixel=255,0,0\nchannels 0\n' > gimp-layered-want.txt
  cmp -s gimp-layered-want.txt gimp-layered.txt || fail "GIMP reads layered.psd as: $(cat gimp-layered.txt)"
  cat > gimp-want.txt <<'TXT'
layer 0 top group=0 size=20x10 opacity=100.0 pixel=255,0,0
layer 0 S group=1 size=16x12 opacity=100.0
layer 1 inset group=0 size=16x12 opacity=50.0 pixel=0,200,0
layer 0 Background group=0 size=64x48 opacity=100.0 pixel=255,255,255
channels 1
TXT
  for depth in 8 16; do cmp -s gimp-want.txt gimp$depth.txt || fail "GIMP reads new$depth.psd as: $(cat gimp$depth.txt gimp.log)"; done
fi

# Every test document saved again reads back in psd-tools as it was.
pairs=""
for doc in "$here"/../photoshop/data/*.psd; do
  name=$(basename "$doc")
  "$kimg" psd "$doc" -o "again-$name"
  mkdir "again-$name.d"
  "$dump" "again-$name" "again-$name.d"
  pairs="$pairs again-$name again-$name.d"
done
# shellcheck disable=SC2086 # names without blanks
$python "$here/../photoshop/psdtools_compare.py" $pairs > compare.txt 2>&1 ||
  fail "saved documents read back differently: $(grep -v '^\(Unknown\|Divider\)' compare.txt)"

# A document built in two commands: a new one, read back and changed.
"$kimg" psd --new 160 90 -o plain.psd
"$kimg" psd plain.psd | grep -q '"Background"  (0,0)-(160,90)' || fail "a new document does not read back"
"$kimg" psd plain.psd --add-layer top=top.png -o plain.psd
"$kimg" info plain.psd | grep -q 'layers       2' || fail "kimg info on a document: $("$kimg" info plain.psd)"
# A document converted to a document keeps its layers.
"$kimg" convert "$here/../photoshop/data/group.psd" copy.psd
"$kimg" psd copy.psd | grep -q 'set "Group 1"' || fail "a document converted to a document lost its layers"

# In place: the document itself is the output.
cp new8.psd edit.psd
"$kimg" psd edit.psd --opacity top=10 -o edit.psd
"$kimg" psd edit.psd | grep -q '"top".*opacity 10$' || fail "an edit in place"
# A save that cannot be made leaves no file and names the reason.
if "$kimg" psd edit.psd -o missing/out.psd 2> err; then fail "a save into a missing folder"; fi
grep -q 'missing/out.psd: cannot be written' err || fail "the failed save's message: $(cat err)"
if "$kimg" psd edit.psd --delete-layer nothing -o x.psd 2> err; then fail "deleting an absent layer"; fi
[ ! -e x.psd ] || fail "a failed edit wrote its output"
if "$kimg" psd edit.psd --blend top=toolong -o x.psd 2> /dev/null; then fail "a blend key of five characters"; fi
echo ok
