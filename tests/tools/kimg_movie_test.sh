#!/bin/sh
# kimg movie and kimg info on AVI movies, both ways against FFmpeg's own
# tools: ffprobe and ffmpeg read what kimg writes, and kimg reads what ffmpeg
# writes to the frames ffmpeg decodes.
set -eu
kimg=$1
samples=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
cd "$work"
ff() { ffmpeg -nostdin -v error -y "$@"; }
# The frames' own pixels, one hash a frame, as ffmpeg decodes them to RGB.
hashes() { ffmpeg -nostdin -v error -i "$1" -f framemd5 -pix_fmt rgb24 - | grep -v '^#' | awk -F, '{print $6}'; }
probe() { ffprobe -v error -select_streams v:0 -show_entries stream="$2" -of default=nw=1:nk=1 "$1" | tr '\n' ' '; }
psnr() { ffmpeg -nostdin -i "$1" -i "$2" -lavfi psnr -f null - 2>&1 | sed -n 's/.*average:\([0-9.inf]*\).*/\1/p'; }

ff -f lavfi -i testsrc=size=64x48:rate=12 -frames:v 8 src.%04d.png
ff -f lavfi -i testsrc2=size=37x23:rate=12 -frames:v 5 odd.%04d.png

# What kimg writes, as ffprobe sees it; the lossless codecs give back the
# very frames, as ffmpeg decodes them.
for case in "DIB rawvideo" "FFV1 ffv1" "MJPG mjpeg" "msvc msvideo1" "cvid cinepak"; do
  set -- $case
  "$kimg" movie "out_$1.avi" 'src.####.png' --rate 12 --codec "$1" || fail "kimg movie --codec $1"
  [ "$(probe "out_$1.avi" codec_name,width,height,r_frame_rate,nb_frames)" = "$2 64 48 12/1 8 " ] ||
    fail "ffprobe of $1: $(probe "out_$1.avi" codec_name,width,height,r_frame_rate,nb_frames)"
  "$kimg" info "out_$1.avi" | grep -q "video        8 frames at 12 a second, $2" || fail "kimg info of $1"
done
hashes 'src.%04d.png' > src.md5
for c in DIB FFV1; do
  hashes "out_$c.avi" | cmp -s - src.md5 || fail "ffmpeg decodes our $c movie to other frames"
done
for c in DIB FFV1; do
  "$kimg" movie "odd_$c.avi" 'odd.####.png' --codec $c
  hashes "odd_$c.avi" | cmp -s - "$(hashes 'odd.%04d.png' > odd.md5; echo odd.md5)" || fail "odd-sized $c movie"
done
p=$(psnr out_MJPG.avi 'src.%04d.png')
awk "BEGIN{exit !($p > 30)}" || fail "MJPEG PSNR $p"
# 29.97 frames a second is written as 29.
"$kimg" movie rate.avi src.0001.png src.0002.png --rate 29.97
[ "$(probe rate.avi r_frame_rate)" = "29/1 " ] || fail "rate 29.97"
# Another extension gets ".AVI".
"$kimg" movie clip.mov src.0001.png && [ -f clip.mov.AVI ] || fail "the .AVI rule"

# Frames of kimg's own formats, 8 and 16 bits a channel: a lossless movie
# gives back what kimg converts them to (16-bit channels within rounding).
"$kimg" movie own.avi "$samples/pattern-rgba-depth.iff" "$samples/pattern-16bit.iff"
"$kimg" movie own.avi --extract 'own.####.png'
"$kimg" convert "$samples/pattern-rgba-depth.iff" want.0001.png
"$kimg" convert "$samples/pattern-16bit.iff" want16.png
hashes 'want.%04d.png' > own.md5
hashes own.0001.png | cmp -s - own.md5 || fail "8-bit IFF frame through a movie"
p=$(psnr own.0002.png want16.png)
awk "BEGIN{exit !($p > 45)}" || fail "16-bit IFF frame through a movie: PSNR $p"

# What ffmpeg writes, read by kimg: the frames ffmpeg decodes, exactly for
# the lossless codecs and for those that decode to RGB.
for case in "raw -c:v rawvideo -pix_fmt bgr24" "ffv1 -c:v ffv1" "cvid -c:v cinepak" "msvc -c:v msvideo1" \
            "pal8 -c:v rawvideo -pix_fmt pal8" "mjpg -c:v mjpeg -q:v 3"; do
  set -- $case
  name=$1
  shift
  ff -i 'src.%04d.png' "$@" "in_$name.avi"
  "$kimg" movie "in_$name.avi" --extract "x_$name.####.png" || fail "kimg reads ffmpeg's $name movie"
  [ -f "x_$name.0008.png" ] && [ ! -f "x_$name.0009.png" ] || fail "frames of ffmpeg's $name movie"
  if [ "$name" = mjpg ]; then
    p=$(psnr "x_$name.%04d.png" "in_$name.avi")
    awk "BEGIN{exit !($p > 40)}" || fail "our MJPEG decoding against ffmpeg's: PSNR $p"
  else
    hashes "in_$name.avi" > want.md5
    hashes "x_$name.%04d.png" | cmp -s - want.md5 || fail "frames of ffmpeg's $name movie differ from ffmpeg's decoding"
  fi
done

# A large 4:2:0 frame, which kimg converts in two bands at once.
ff -f lavfi -i testsrc2=size=640x480 -frames:v 2 -c:v mjpeg -pix_fmt yuvj420p big420.avi
"$kimg" movie big420.avi --extract 'big.####.png'
p=$(psnr 'big.%04d.png' big420.avi)
awk "BEGIN{exit !($p > 40)}" || fail "a large 4:2:0 frame against ffmpeg's decoding: PSNR $p"

# Failures: each names the file and says why, leaves no output, and keeps
# what a target held.
echo old > keep.avi
ff -f lavfi -i testsrc=size=32x32 -frames:v 1 big.png
if "$kimg" movie keep.avi src.0001.png big.png 2> err.txt; then fail "frames of two sizes"; fi
grep -q "big.png: is 32 x 32, the movie's frames 64 x 48" err.txt || fail "size message: $(cat err.txt)"
[ "$(cat keep.avi)" = old ] || fail "the target was touched"
ls -a | grep -q '^\.keep' && fail "a temporary file stayed"
if "$kimg" movie x.avi src.0001.png --codec XVID 2> err.txt; then fail "unknown codec"; fi
grep -q "codec" err.txt || fail "codec message"
head -c 3000 out_DIB.avi > cut.avi
if "$kimg" movie cut.avi --extract 'c.####.png' 2> err.txt; then fail "a cut movie read whole"; fi
grep -q "^kimg: cut.avi: " err.txt || fail "cut message: $(cat err.txt)"
if "$kimg" movie nothere.avi --extract 'n.####.png' 2> err.txt; then fail "a missing movie"; fi
grep -q "nothere.avi" err.txt || fail "missing-movie message"

# Without FFmpeg's libraries: a clear failure, nothing written.
if KELP_FFMPEG_DIR=/nonexistent "$kimg" info out_DIB.avi 2> err.txt; then fail "info without FFmpeg"; fi
grep -q "out_DIB.avi: the FFmpeg libraries are not available" err.txt || fail "no-FFmpeg message: $(cat err.txt)"
if KELP_FFMPEG_DIR=/nonexistent "$kimg" movie none.avi src.0001.png 2> err.txt; then fail "movie without FFmpeg"; fi
[ ! -e none.avi ] || fail "a movie made without FFmpeg"
"$kimg" info src.0001.png > /dev/null || fail "pictures need no FFmpeg"
echo "kimg movie: all passed"
