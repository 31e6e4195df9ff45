#!/usr/bin/env bash
# Sets up, builds and runs the test suite. The argument names the build:
# default, asan (AddressSanitizer and UndefinedBehaviorSanitizer) or tsan.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
bash scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset" -j"$(nproc)"
