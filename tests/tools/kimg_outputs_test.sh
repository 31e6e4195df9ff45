#!/bin/bash
# Outputs keep what they are, as cp and the shell's ">" do: devices, FIFOs
# and standard output are written straight into and their write errors fail
# the command; links are followed; an existing file keeps its mode. Inputs
# that cannot be read twice are read once. A run stopped by a signal leaves
# no temporary file.
set -eu
kimg="$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

"$kimg" pattern a.iff --size 64x48 --alpha
"$kimg" convert a.iff a.png

# A device: written into, its error fails the command, and it stays a device.
for format in png tif pnm iff sgi; do
  if "$kimg" convert a.png /dev/full --format "$format" 2> err.txt; then
    echo "FAIL: writing $format to /dev/full succeeded"; exit 1
  fi
  grep -q "^kimg: /dev/full: " err.txt || { echo "FAIL: $format to /dev/full:"; cat err.txt; exit 1; }
  [ -c /dev/full ] || { echo "FAIL: /dev/full is no longer a device"; exit 1; }
done

# Standard output: a failed write is an error of every command.
if "$kimg" info a.iff > /dev/full 2> err.txt; then echo "FAIL: info to a full stdout exited 0"; exit 1; fi
grep -q "standard output" err.txt
if "$kimg" convert a.png - --format png > /dev/full 2> err.txt; then echo "FAIL: convert to a full stdout exited 0"; exit 1; fi
"$kimg" convert a.png - --format png | cmp - a.png

# A symbolic link: its target is replaced, the link stays, nothing is left beside either.
mkdir sub
echo old > sub/target.png
ln -s sub/target.png link.png
"$kimg" convert a.iff link.png
[ -L link.png ] || { echo "FAIL: the link was replaced"; exit 1; }
cmp sub/target.png a.png
[ "$(ls -A sub)" = target.png ] || { echo "FAIL: left in sub:"; ls -A sub; exit 1; }

# An existing file keeps its mode, whatever the format.
for ext in png iff sgi tif psd; do
  echo old > "m.$ext"
  chmod 640 "m.$ext"
  "$kimg" convert a.iff "m.$ext"
  [ "$(stat -c %a "m.$ext")" = 640 ] || { echo "FAIL: m.$ext came back $(stat -c %a "m.$ext")"; exit 1; }
done

# A FIFO and a process's output are read once.
mkfifo fifo
cat a.png > fifo &
"$kimg" info fifo | grep -q "640 x 480\|64 x 48"
wait
"$kimg" info <(cat a.png) | grep -q "64 x 48"
"$kimg" convert <(cat a.png) from-process.iff
"$kimg" info from-process.iff | grep -q "64 x 48"

# Stopped by SIGTERM or SIGINT in the middle of a sequence: no temporary
# file of the run is left beside the outputs or in TMPDIR.
mkdir seq tmp
"$kimg" pattern big.iff --size 1920x1080 --alpha --depth
for i in 1 2 3 4 5 6 7 8 9 10 11 12; do cp big.iff "seq/in.$(printf %04d $i).iff"; done
for signal in TERM INT; do
  rm -rf out && mkdir out
  TMPDIR="$dir/tmp" "$kimg" convert 'seq/in.####.iff' 'out/o.####.png' --threads 2 -q &
  pid=$!
  sleep 0.5
  kill -s "$signal" "$pid"
  wait "$pid" || true
  left=$(ls -A out tmp | grep -v '^o\.[0-9]*\.png$' | grep -v '^out:$\|^tmp:$\|^$' || true)
  [ -z "$left" ] || { echo "FAIL: SIG$signal left: $left"; exit 1; }
done
echo "outputs: all checks passed"
