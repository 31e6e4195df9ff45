#!/usr/bin/env bash
# 240 frames of 1920 x 1080 written as AVI movies with "MJPG" and "FFV1"
# and read back, by kelp-image and by ffmpeg from the same image sequence
# (PPM frames made by ffmpeg, kept in the build folder).
#   library: the track layer from frames held in memory, and Tmovie reading
#            every frame into a pixel map; ffmpeg from the sequence to AVI,
#            and from AVI to 4-byte pixels it throws away.
#   tool:    kimg movie from the sequence, and --extract to a PPM sequence;
#            ffmpeg the same.
# Each figure is the median of three runs.
# Usage: bench/movie_bench.sh [BUILD_DIR] (default build/bench).
set -euo pipefail
build="${1:-build/bench}"
frames="$PWD/$build/movie-frames"
count=240
if [ ! -s "$frames/f.$(printf %04d $count).ppm" ]; then
  mkdir -p "$frames"
  ffmpeg -nostdin -v error -y -f lavfi -i "testsrc2=size=1920x1080:rate=24,noise=alls=6:allf=t" \
    -frames:v $count "$frames/f.%04d.ppm"
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
kimg="$PWD/$build/tools/kimg/kimg"
# The median of three timed runs of a command, in seconds.
seconds() {
  local runs=() s
  for _ in 1 2 3; do
    s=$(date +%s.%N)
    "$@" > /dev/null 2>&1 || { echo "failed: $*" >&2; exit 1; }
    runs+=("$(awk -v a="$s" -v b="$(date +%s.%N)" 'BEGIN { print b - a }')")
  done
  printf '%s\n' "${runs[@]}" | sort -g | sed -n 2p
}
ff() { ffmpeg -nostdin -v error -y "$@"; }
declare -A opts=([MJPG]="-c:v mjpeg -q:v 2 -pix_fmt yuvj444p -g 1" [FFV1]="-c:v ffv1 -pix_fmt bgr0 -g 1")

echo "== library: kelp-image's track layer (frames in memory) =="
KELP_MOVIE_BENCH_FRAMES="$frames/f.%04d.ppm" KELP_MOVIE_BENCH_COUNT=$count KELP_MOVIE_BENCH_DIR="$work" \
  "$build/bench/kelp_bench_movie" --benchmark_repetitions=3 --benchmark_report_aggregates_only=true \
  --benchmark_format=console 2>/dev/null | grep -E '^(write|read).*_median'
echo "== ffmpeg, same frames (PPM sequence in, AVI out; AVI in, BGRA out) =="
for c in MJPG FFV1; do
  w=$(seconds ff -i "$frames/f.%04d.ppm" ${opts[$c]} "$work/ff_$c.avi")
  r=$(seconds ff -i "$work/ff_$c.avi" -f rawvideo -pix_fmt bgra /dev/null)
  awk -v c=$c -v w="$w" -v r="$r" 'BEGIN { printf "%s: write %.0f ms, read %.0f ms\n", c, w * 1000, r * 1000 }'
done
echo "== tools: kimg movie beside ffmpeg (PPM sequence to AVI, AVI to PPM sequence) =="
for c in MJPG FFV1; do
  kw=$(seconds "$kimg" movie "$work/k_$c.avi" "$frames/f.####.ppm" --rate 24 --codec $c)
  kr=$(seconds "$kimg" movie "$work/k_$c.avi" --extract "$work/k_$c.####.ppm")
  fw=$(seconds ff -i "$frames/f.%04d.ppm" ${opts[$c]} "$work/f_$c.avi")
  fr=$(seconds ff -i "$work/f_$c.avi" "$work/f_$c.%04d.ppm")
  printf "%s: kimg write %.1f s, read %.1f s; ffmpeg write %.1f s, read %.1f s\n" $c "$kw" "$kr" "$fw" "$fr"
done
