#!/usr/bin/env bash
# Sets up and builds kelp-image, then runs kimg on the bundled sample
# pictures and on one it writes itself.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default
kimg=build/default/tools/kimg/kimg
out=build/default/demo
mkdir -p "$out"

set -x
"$kimg" create "$out/header.iff" --size 1920x1080 --type rgbaz --bytes 2 --dpi 300 --field NOTE="made by kimg"
"$kimg" info samples/*.iff "$out/header.iff"
"$kimg" chunks "$out/header.iff"
