#!/usr/bin/env sh
# Fails, naming the files, when a C++ source of the tree is not as
# .clang-format lays it out. Fix with: clang-format -i FILE...
set -eu
cd "$(dirname "$0")/.."
if [ -d .git ]; then
  files=$(git ls-files '*.cpp' '*.h')
else
  files=$(find src plugins tools python bench fuzz tests -name '*.cpp' -o -name '*.h')
fi
# shellcheck disable=SC2086
clang-format --dry-run --Werror $files
