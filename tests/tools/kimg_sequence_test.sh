#!/bin/sh
# Frame sequences through kimg: patterns in and out, the frames on disk or
# --frames, missing and damaged frames with and without --skip-bad, the
# same files from one thread as from several, info over a sequence, and
# kimg find.
set -eu
kimg="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

"$kimg" pattern base.iff --size 96x64 --alpha --depth
for f in 1 2 3 5 6 7; do
  "$kimg" pattern "in.$(printf %04d $f).iff" --size 96x64 --alpha --depth --bytes $((f % 2 + 1))
done

# The frames on disk, padded names in and unpadded out.
"$kimg" convert 'in.####.iff' 'out.#.sgi' -q
[ "$(ls out.*.sgi | wc -l)" = 6 ]
[ -f out.7.sgi ] && [ ! -f out.4.sgi ]
"$kimg" convert in.0003.iff single.sgi
cmp single.sgi out.3.sgi
# The same files from one thread as from three.
"$kimg" convert 'in.%04d.iff' 'one.####.png' --threads 1 -q
"$kimg" convert 'in.%04d.iff' 'three.####.png' --threads 3 -q
for f in 1 2 3 5 6 7; do cmp "one.000$f.png" "three.000$f.png"; done
# A range with a step.
"$kimg" convert 'in.####.iff' 'step.####.iff' --frames 1-7x2 -q
[ "$(ls step.*.iff | tr '\n' ' ')" = "step.0001.iff step.0003.iff step.0005.iff step.0007.iff " ]

# A missing frame named by --frames stops the run and is named.
if "$kimg" convert 'in.####.iff' 'miss.####.sgi' --frames 1-7 --threads 1 -q 2> err.txt; then exit 1; fi
grep -q "in.0004.iff" err.txt
grep -q "stopped at a frame that failed" err.txt
# A damaged one too; --skip-bad goes on and lists them.
head -c 100 in.0006.iff > in.0006.cut && mv in.0006.cut in.0006.iff
if "$kimg" convert 'in.####.iff' 'skip.####.sgi' --frames 1-7 --skip-bad -q 2> err.txt; then exit 1; fi
grep -q "in.0006.iff" err.txt
grep -q "2 of 7 frames failed: 4, 6" err.txt
[ "$(ls skip.*.sgi | wc -l)" = 5 ]
cmp skip.0003.sgi single.sgi
# -v names each frame's files.
"$kimg" convert 'in.####.iff' 'v.####.sgi' --frames 1-2 -v 2> err.txt
grep -q "in.0002.iff -> v.0002.sgi" err.txt

# kimg info over a sequence.
[ "$("$kimg" info 'in.####.iff' --frames 1-3 | grep -c '^  size\|^  frame ')" = 3 ]

# Usage: an output without a pattern, --frames without one.
set +e
"$kimg" convert 'in.####.iff' plain.sgi 2> /dev/null; [ $? = 2 ] || exit 1
"$kimg" convert in.0001.iff plain.sgi --frames 1-2 2> /dev/null; [ $? = 2 ] || exit 1
"$kimg" convert 'none.####.iff' 'x.####.sgi' 2> err.txt; [ $? = 1 ] || exit 1
set -e
grep -q "no frames of this pattern exist" err.txt

# kimg find: frame padding, field markers, .Z; -v lists the names tried.
mkdir -p shots
cp base.iff shots/plate.e.0012.iff
cp base.iff shots/grain.iff.Z
cp base.iff shots/take.e.0012
[ "$("$kimg" find shots/plate.iff --frame 12 --field even)" = shots/plate.e.0012.iff ]
[ "$("$kimg" find shots/take.o.0012 --field even)" = shots/take.e.0012 ]  # the odd field's name, turned
[ "$("$kimg" find shots/grain.iff)" = shots/grain.iff.Z ]
if "$kimg" find shots/plate.iff --frame 12 -v 2> err.txt; then exit 1; fi
[ "$(grep -c '^tried ' err.txt)" = 20 ]
# A name the search asks about twice is listed once.
if "$kimg" find shots/none -v 2> err.txt; then exit 1; fi
[ -z "$(grep '^tried ' err.txt | sort | uniq -d)" ] || { echo "FAIL: find -v repeats names"; exit 1; }
echo "kimg sequences: all checks passed"
