#!/usr/bin/env bash
# Sets up, builds and runs the test suite. The first argument names the
# build: default, release, asan (AddressSanitizer and UndefinedBehaviorSanitizer)
# or tsan (ThreadSanitizer); a second one runs only the tests whose names match it.
set -euo pipefail
cd "$(dirname "$0")/.."
preset="${1:-default}"
bash scripts/setup.sh test
cmake --preset "$preset" -DKELP_BUILD_TESTS=ON >/dev/null
cmake --build --preset "$preset"
if [ $# -ge 2 ]; then
  ctest --preset "$preset" -j"$(nproc)" -R "$2"
else
  ctest --preset "$preset" -j"$(nproc)"
fi
