#!/bin/sh
# Every document of the test data (and of $KELP_PSD_DIR, or the shared set
# beside the checkout when it is there) read by the library and by psd-tools:
# layer records, set structure and the samples of every channel must agree,
# and set composites of normal layers within 2 levels.
# Also a 16-bit run-length document written by ImageMagick.
set -eu
dump=$1
here=$2
python=/usr/bin/python3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

shared=${KELP_PSD_DIR:-$here/../../../shared/psd}
set -- "$here"/data/*.psd
[ -d "$shared" ] && set -- "$@" "$shared"/*.psd

# ImageMagick spells the blend key of its 16-bit layers backwards, which
# psd-tools refuses; the key is put right before both read it.
convert -size 64x48 gradient:red-blue \( -size 30x20 xc:none -fill 'rgba(0,255,0,0.5)' -draw 'circle 15,10 15,2' \) \
  -depth 16 -compress RLE "$work/im16.psd"
$python -c "import sys; p=sys.argv[1]; d=open(p,'rb').read(); open(p,'wb').write(d.replace(b'8BIMmron', b'8BIMnorm'))" \
  "$work/im16.psd"
set -- "$@" "$work/im16.psd"

failed=0
checked=0
pairs=""
for doc in "$@"; do
  # 32-bit documents are refused, as they must be.
  depth=$($python -c "import sys,struct; print(struct.unpack('>H', open(sys.argv[1],'rb').read()[22:24])[0])" "$doc")
  out="$work/$(basename "$doc").d"
  mkdir -p "$out"
  if [ "$depth" = 32 ]; then
    if "$dump" "$doc" "$out" 2>/dev/null; then echo "FAIL: $doc: a 32-bit document was read"; failed=1; fi
    continue
  fi
  if ! "$dump" "$doc" "$out"; then echo "FAIL: $doc: not read"; failed=1; continue; fi
  pairs="$pairs $doc $out"
  checked=$((checked + 1))
done
# shellcheck disable=SC2086 # the pairs are paths without blanks
if ! $python "$here/psdtools_compare.py" $pairs 2>/dev/null; then failed=1; fi
echo "$checked documents agree with psd-tools"
exit $failed
