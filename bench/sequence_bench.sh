#!/usr/bin/env bash
# Wall times of converting a sequence of 1920 x 1080 RGBA frames with depth
# (IFF) to SGI and to PNG: kimg with --threads 2 and --threads 1, a shell
# loop of single kimg convert calls, and oiiotool --frames on the same files.
# Usage: bench/sequence_bench.sh [BUILD_DIR] [FRAMES] (defaults build/bench,
# 300); one run each, in seconds.
set -euo pipefail
build="${1:-build/bench}"
frames="${2:-300}"
kimg="$PWD/$build/tools/kimg/kimg"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

"$kimg" pattern base.iff --size 1920x1080 --alpha --depth
for f in $(seq 1 "$frames"); do cp base.iff "in.$(printf %04d "$f").iff"; done
seconds() {
  local start end
  start=$(date +%s%N)
  "$@" > /dev/null 2>&1
  end=$(date +%s%N)
  rm -f out.*
  awk -v ns=$((end - start)) 'BEGIN { printf "%.1f", ns / 1e9 }'
}
loop() {
  for f in $(seq 1 "$frames"); do
    local n
    n=$(printf %04d "$f")
    "$kimg" convert "in.$n.iff" "out.$n.$1"
  done
}
printf '%-6s %10s %10s %10s %10s\n' "to" "threads 2" "threads 1" "loop" "oiiotool"
for ext in sgi png; do
  printf '%-6s %10s %10s %10s %10s\n' "$ext" \
    "$(seconds "$kimg" convert 'in.####.iff' "out.####.$ext" --threads 2 -q)" \
    "$(seconds "$kimg" convert 'in.####.iff' "out.####.$ext" --threads 1 -q)" \
    "$(seconds loop "$ext")" \
    "$(seconds oiiotool --frames "1-$frames" 'in.#.iff' -o "out.#.$ext")"  # its "#": four digits
done
