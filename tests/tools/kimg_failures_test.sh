#!/bin/sh
# kimg fails cleanly: the right exit status, one message that starts with
# "kimg:" and names the file and the reason, and nothing lost or left behind.
set -eu
kimg="$1"
samples="$2"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
export PATH="/usr/bin:/bin"  # no image converter of the host's

# fails STATUS PATTERN COMMAND...: the command exits with STATUS, its
# standard error matches PATTERN and holds nothing but kimg's own lines.
fails() {
  want=$1
  pattern=$2
  shift 2
  set +e
  "$@" > "$dir/out.txt" 2> "$dir/err.txt"
  got=$?
  set -e
  if [ "$got" != "$want" ]; then
    echo "FAIL: '$*' exited $got, not $want"
    cat "$dir/err.txt"
    exit 1
  fi
  if ! grep -q -- "$pattern" "$dir/err.txt"; then
    echo "FAIL: '$*' did not say '$pattern':"
    cat "$dir/err.txt"
    exit 1
  fi
  if grep -v -e '^kimg: ' -e "^Run 'kimg --help'" "$dir/err.txt" | grep -q .; then
    echo "FAIL: '$*' printed more than its message:"
    cat "$dir/err.txt"
    exit 1
  fi
}

# nothing_left: no temporary file of kimg's is left in the folder.
nothing_left() {
  if ls -a "$dir" | grep -q 'kimg-'; then
    echo "FAIL: temporary files left behind:"
    ls -a "$dir"
    exit 1
  fi
}

"$kimg" pattern "$dir/p.iff" --size 96x64 --alpha --depth
cp "$dir/p.iff" "$dir/keep.iff"

# Usage errors exit 2.
fails 2 "unknown command 'bogus'" "$kimg" bogus
fails 2 "tile must be WxH" "$kimg" convert "$dir/p.iff" "$dir/x.iff" --tile 0x0
fails 2 "size must be WxH" "$kimg" pattern "$dir/x.iff" --size 0x9
fails 2 "unknown zoom filter 'nosuch'" "$kimg" convert "$dir/p.iff" "$dir/x.iff" --resize 9x9 --filter nosuch
fails 2 "go with --resize" "$kimg" convert "$dir/p.iff" "$dir/x.iff" --filter gauss
mkdir -p "$dir/work/filters"
printf 'radius = 1\ny = 1 - abs(x) +\n' > "$dir/work/filters/broken"
KELP_WORK="$dir/work" fails 1 "filters/broken line 2" "$kimg" convert "$dir/p.iff" "$dir/x.iff" --resize 9x9 --filter broken
[ ! -e "$dir/x.iff" ]

# Options outside their range, and a pixel limit, are said before anything is read.
fails 2 'option "Quality" takes 1 to 100 (1 (smallest) to 100 (best)), not 500' "$kimg" convert "$dir/p.iff" "$dir/q.jpg" --option Quality=500
fails 2 'option "Compression" takes 0 to 4' "$kimg" convert "$dir/p.iff" "$dir/q.exr" --option Compression=9
[ ! -e "$dir/q.jpg" ] && [ ! -e "$dir/q.exr" ]
fails 1 "Image size out of range" "$kimg" --limit 100 convert "$dir/p.iff" "$dir/q.png"
"$kimg" convert "$dir/p.iff" "$dir/q.png"
fails 1 "past the limit of 100 pixels" "$kimg" --limit 100 info "$dir/q.png"

# Inputs that are missing, not pictures, damaged or hostile.
fails 1 "kimg: $dir/missing.iff: No such file or directory" "$kimg" info "$dir/missing.iff"
fails 1 "kimg: $dir/missing.iff: No such file or directory" "$kimg" convert "$dir/missing.iff" "$dir/x.iff"
fails 1 "Is a directory" "$kimg" chunks "$dir"
: > "$dir/empty.iff"
fails 1 "empty or too short" "$kimg" chunks "$dir/empty.iff"
fails 1 "empty.iff: the file is empty" "$kimg" info "$dir/empty.iff"
printf '\211PNG\r\n\032\n\000\000\000\rIHDR\000\000\000\001\000\000\000\001\010\002\000\000\000' > "$dir/x.png"
fails 1 "x.png: Not a chunked file" "$kimg" chunks "$dir/x.png"
fails 1 "x.png: the file ends early" "$kimg" info "$dir/x.png"
# A damaged PNG: the codec library's reason.
fails 1 "x.png: the file ends early" "$kimg" convert "$dir/x.png" "$dir/x.iff"
[ ! -e "$dir/x.iff" ]
printf 'not a picture' > "$dir/x.txt"
fails 1 "x.txt: not a picture of a format the library reads" "$kimg" convert "$dir/x.txt" "$dir/x.iff"
printf 'FOR4\000\000\000\004Kelp' > "$dir/scene.iff"
fails 1 "scene.iff: not a picture of a format the library reads" "$kimg" info "$dir/scene.iff"

# A header far larger than its file: shown as it stands, refused at once.
python3 - "$dir/p.iff" "$dir/huge.iff" "$dir/wide.iff" <<'PY'
import struct, sys
data = bytearray(open(sys.argv[1], 'rb').read())
at = data.find(b'TBHD') + 8
huge = bytearray(data)
huge[at:at + 8] = struct.pack('>II', 2147483647, 2147483647)
open(sys.argv[2], 'wb').write(huge)
wide = bytearray(data)
wide[at:at + 8] = struct.pack('>II', 32768, 1)
open(sys.argv[3], 'wb').write(wide)
PY
fails 1 "huge.iff: Image size out of range" "$kimg" info --stats "$dir/huge.iff"
grep -q "Image size out of range (2147483647 x 2147483647)" "$dir/err.txt"
fails 1 "huge.iff: Image size out of range" "$kimg" convert "$dir/huge.iff" "$dir/x.iff"
# A header whose tiles do not cover the picture.
fails 1 "wide.iff: Data does not fit" "$kimg" convert "$dir/wide.iff" "$dir/x.iff"
fails 1 "wide.iff: Data does not fit" "$kimg" info --stats "$dir/wide.iff"
# Truncated files: no picture made of what is missing.
head -c 3000 "$dir/p.iff" > "$dir/cut.iff"
fails 1 "cut.iff: " "$kimg" depth "$dir/cut.iff" "$dir/d.iff"
fails 1 "cut.iff: " "$kimg" convert "$dir/cut.iff" "$dir/x.sgi"
[ ! -e "$dir/d.iff" ] && [ ! -e "$dir/x.iff" ] && [ ! -e "$dir/x.sgi" ]
"$kimg" convert "$dir/p.iff" "$dir/p.sgi" --compression none
head -c 5000 "$dir/p.sgi" > "$dir/cut.sgi"
fails 1 "cut.sgi: SGI image: iopen: file is truncated" "$kimg" info "$dir/cut.sgi"
fails 1 "cut.sgi: SGI image: iopen: file is truncated" "$kimg" convert "$dir/cut.sgi" "$dir/x.iff"

# Outputs: a format kimg cannot write, a failed write, a target kept whole.
fails 1 "out.xyz: kimg cannot write .xyz files; it writes iff" "$kimg" convert "$dir/p.iff" "$dir/out.xyz"
[ ! -e "$dir/out.xyz" ]
fails 1 "kimg: /dev/full: Write error" "$kimg" convert "$dir/p.iff" /dev/full
fails 1 "kimg: /dev/full: " "$kimg" convert "$dir/p.iff" /dev/full --format sgi
fails 1 "kimg: /dev/full: Write error" "$kimg" pattern /dev/full
cp "$dir/keep.iff" "$dir/target.iff"
fails 1 "cut.iff: " "$kimg" convert "$dir/cut.iff" "$dir/target.iff"
cmp "$dir/keep.iff" "$dir/target.iff"
fails 1 "no-such-dir/x.iff: cannot be written: No such file or directory" "$kimg" convert "$dir/p.iff" "$dir/no-such-dir/x.iff"
nothing_left
echo "kimg failures: all checks passed"
