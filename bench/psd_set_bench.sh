#!/usr/bin/env bash
# Compositing a 4096 x 4096 layer set of 10 layers with masks and blend
# modes normal, multiply, screen and overlay (made by make_psd_set, kept in
# the build folder): kelp-image on one thread and on two, beside psd-tools
# compositing the same group. Usage: bench/psd_set_bench.sh [BUILD_DIR]
# (default build/bench).
set -euo pipefail
build="${1:-build/bench}"
doc="$PWD/$build/bench-set-10-layers.psd"
[ -s "$doc" ] || "$build/bench/make_psd_set" "$doc" 4096 4096 10
echo "document: $doc ($(stat -c %s "$doc") bytes)"
KELP_PSD_SET_BENCH_FILE="$doc" "$build/bench/kelp_bench_psd" --benchmark_filter=CompositeSet \
  --benchmark_repetitions=3 --benchmark_report_aggregates_only=true 2>/dev/null | grep -E "median|Benchmark"
/usr/bin/python3 - "$doc" <<'PY'
import sys, time
from psd_tools import PSDImage
path = sys.argv[1]
start = time.perf_counter()
psd = PSDImage.open(path)
group = next(layer for layer in psd.descendants() if layer.is_group())
image = group.composite(viewport=(0, 0, psd.width, psd.height))
print("psd-tools: %.0f ms (%s)" % ((time.perf_counter() - start) * 1000, image.size))
PY
