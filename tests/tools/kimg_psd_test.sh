#!/bin/sh
# kimg psd and kimg convert of Photoshop documents, against psd-tools.
set -eu
kimg=$1
data=$2
python=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

# The layer tree: sets indented, flags and masks shown.
"$kimg" psd "$data/clipping-mask.psd" > "$work/tree.txt"
grep -q '^  set "Group 2" (open)  pass' "$work/tree.txt" || fail "outer set"
grep -q '^    set "Group 1" (closed)' "$work/tree.txt" || fail "nested set"
grep -q '^      "Shape 4"  (106,-73)-(263,87) 157x160  norm  opacity 255$' "$work/tree.txt" || fail "nested layer"
grep -q '"Shape 2".*clipped' "$work/tree.txt" || fail "clipping"
"$kimg" psd "$data/mask.psd" | grep -q 'mask (23,10)-(94,67) default 0' || fail "mask"
"$kimg" psd "$data/effects_effects-enabled.psd" |
  grep -q '^warning: Kelp does not support Object-based Effects which may be present in the layer Layer 1 in the file effects_effects-enabled.psd$' ||
  fail "warnings"
"$kimg" psd "$data/16bit5x5.psd" | grep -q 'zip+prediction' || fail "compressions"

# Flattened image, one layer and one alpha channel, as psd-tools reads them.
"$kimg" convert "$data/2layers.psd" "$work/flat.png"
"$kimg" convert "$data/2layers.psd" --layer '#1' "$work/layer.png"
"$kimg" convert "$data/2layers.psd" --layer 'Слой' "$work/named.tif"
"$kimg" convert "$data/colormodes_4x4_8bit_rgba.psd" --alpha 0 "$work/alpha.png"
$python - "$data" "$work" <<'PY'
import sys
from PIL import Image, ImageChops
from psd_tools import PSDImage
data, work = sys.argv[1], sys.argv[2]
def same(a, b, what):
    if a.size != b.size or ImageChops.difference(a, b).getbbox() is not None:
        sys.exit("FAIL: %s differs from psd-tools" % what)
doc = PSDImage.open(data + "/2layers.psd")
same(Image.open(work + "/flat.png").convert("RGB"), doc.topil().convert("RGB"), "the flattened image")
layer = doc[1].topil().convert("RGBA")
same(Image.open(work + "/layer.png").convert("RGBA"), layer, "layer #1")
same(Image.open(work + "/named.tif").convert("RGBA"), layer, "the layer by name")
rgba = PSDImage.open(data + "/colormodes_4x4_8bit_rgba.psd")
plane = rgba._record.image_data.get_data(rgba._record.header)[3]
same(Image.open(work + "/alpha.png").convert("L"), Image.frombytes("L", rgba.size, plane), "alpha 0")
PY

# Layer sets: the outermost listed, a set's composite as psd-tools makes it.
[ "$("$kimg" psd "$data/clipping-mask.psd" --sets)" = "Group 2" ] || fail "--sets"
"$kimg" psd "$data/clipping-mask.psd" --set "Group 1" -o "$work/set.png"
"$kimg" convert "$data/semi-transparent-layers.psd" --set grp1 "$work/grp1.tif"
$python - "$data" "$work" <<'PY'
import sys
import numpy as np
from PIL import Image
from psd_tools import PSDImage
data, work = sys.argv[1], sys.argv[2]
for doc, name, out in (("clipping-mask.psd", "Group 1", "set.png"), ("semi-transparent-layers.psd", "grp1", "grp1.tif")):
    psd = PSDImage.open(data + "/" + doc)
    group = next(l for l in psd.descendants() if l.is_group() and l.name == name)
    theirs = np.asarray(group.composite(viewport=(0, 0, psd.width, psd.height)).convert("RGBA")).astype(int)
    ours = np.asarray(Image.open(work + "/" + out).convert("RGBA")).astype(int)
    seen = (ours[..., 3] > 0) & (theirs[..., 3] > 0)
    worst = max(np.abs(ours[..., 3] - theirs[..., 3]).max(), np.abs(ours - theirs)[..., :3][seen].max())
    if worst > 2:
        sys.exit("FAIL: set %s of %s differs from psd-tools by %d" % (name, doc, worst))
PY
if "$kimg" psd "$data/group.psd" --set "Group 1" 2> /dev/null; then fail "--set without -o"; fi
if "$kimg" psd "$data/group.psd" --set nothing -o "$work/x.png" 2> "$work/err"; then fail "absent set"; fi
grep -q 'group.psd: has no layer set "nothing"' "$work/err" || fail "absent set message: $(cat "$work/err")"

# kimg's picture of every test document's flattened image is psd-tools'
# (in RGB: grey copied to all three, CMYK converted as PIL converts it; the
# document's transparency kept, with straight colour; 16-bit samples by
# their high byte); a Lab document agrees with ImageMagick's sRGB within 3.
for doc in "$data"/*.psd; do
  "$kimg" convert "$doc" "$work/front-$(basename "$doc" .psd).png"
done
$python - "$data" "$work" <<'PY'
import glob, os, sys
import numpy as np
from PIL import Image
from psd_tools import PSDImage
data, work = sys.argv[1], sys.argv[2]
for doc in sorted(glob.glob(data + "/*.psd")):
    name = os.path.basename(doc)
    psd = PSDImage.open(doc)
    theirs = psd.topil()
    if theirs is None:  # psd-tools gives no picture: its planes, as they stand
        planes = psd._record.image_data.get_data(psd._record.header)
        theirs = Image.merge("RGB", [Image.frombytes("L", psd.size, planes[c]) for c in range(3)])
    ours = Image.open(work + "/front-" + name[:-4] + ".png")
    if theirs.mode == "LAB":
        continue
    if ours.mode.startswith("I;16"):
        ours = Image.fromarray((np.asarray(ours).astype(np.uint32) >> 8).astype(np.uint8))
    mode = "RGBA" if "A" in theirs.mode else "RGB"
    if ours.mode != mode and not (mode == "RGB" and ours.mode == "RGB"):
        sys.exit("FAIL: %s is %s, psd-tools gives %s" % (name, ours.mode, theirs.mode))
    a, b = np.asarray(ours.convert(mode)).astype(int), np.asarray(theirs.convert(mode)).astype(int)
    if a.shape != b.shape or np.abs(a - b).max() > 1:
        sys.exit("FAIL: %s differs from psd-tools' picture" % name)
PY
convert "$data/colormodes_4x4_8bit_lab.psd[0]" -colorspace sRGB "$work/lab-im.png"
fuzz=$(compare -metric AE -fuzz 3% "$work/front-colormodes_4x4_8bit_lab.png" "$work/lab-im.png" null: 2>&1 || true)
[ "$fuzz" = 0 ] || fail "a Lab document differs from ImageMagick's sRGB in $fuzz pixels"
"$kimg" convert "$data/2layers.psd" "$work/front-2layers.tif"
"$kimg" convert "$work/front-2layers.tif" "$work/layered.psd"
$python - "$work" <<'PY'
import sys
import numpy as np
from PIL import Image
from psd_tools import PSDImage
work = sys.argv[1]
psd = PSDImage.open(work + "/layered.psd")
layers = list(psd)
picture = np.asarray(Image.open(work + "/front-2layers.tif").convert("RGB"))
if [l.name for l in layers] != ["Background"] or not np.array_equal(np.asarray(layers[0].topil().convert("RGB")), picture):
    sys.exit("FAIL: a picture written as a document: %s" % [l.name for l in layers])
if not np.array_equal(np.asarray(psd.topil().convert("RGB")), picture):
    sys.exit("FAIL: the written document's flattened image")
PY
identify "$work/layered.psd" | grep -q 'layered.psd\[1\] PSD 101x55' || fail "ImageMagick on a written document"
"$kimg" formats | grep -q '^psd ' || fail "kimg formats lists no psd"

# Failures name the file and the reason.
if "$kimg" convert "$data/2layers.psd" --layer nothing "$work/x.png" 2> "$work/err"; then fail "absent layer"; fi
grep -q '2layers.psd: has no layer "nothing"' "$work/err" || fail "absent layer message: $(cat "$work/err")"
[ ! -e "$work/x.png" ] || fail "a failed conversion left its output"
if "$kimg" convert "$data/2layers.psd" --alpha 0 "$work/x.png" 2> "$work/err"; then fail "absent alpha"; fi
grep -q 'has no alpha channel 0' "$work/err" || fail "absent alpha message"
head -c 3000 "$data/2layers.psd" > "$work/cut.psd"
if "$kimg" psd "$work/cut.psd" 2> "$work/err"; then fail "a cut document"; fi
grep -q 'cut.psd: truncated' "$work/err" || fail "cut message: $(cat "$work/err")"
if "$kimg" convert "$work/cut.psd" "$work/x.png" 2> /dev/null; then fail "a cut document converted"; fi
if "$kimg" convert "$work/flat.png" --layer a "$work/x.png" 2> /dev/null; then fail "--layer on a PNG"; fi
echo ok
