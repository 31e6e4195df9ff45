#!/bin/sh
# The library exports exactly the names in the list, all under one version.
# Usage: check-exports.sh LIBRARY LIST
set -eu
lib="$1"
list="$2"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
nm -D --defined-only "$lib" | awk '{print $3}' > "$dir/raw"
# Every name but the version node itself carries the version.
if grep -v '^KELPIMAGE_0$' "$dir/raw" | grep -qv '@@KELPIMAGE_0$'; then
  echo "names without the KELPIMAGE_0 version:"
  grep -v '^KELPIMAGE_0$' "$dir/raw" | grep -v '@@KELPIMAGE_0$'
  exit 1
fi
grep -v '^KELPIMAGE_0$' "$dir/raw" | sed 's/@@KELPIMAGE_0$//' | c++filt | LC_ALL=C sort -u > "$dir/actual"
LC_ALL=C sort -u "$list" > "$dir/expected"
if ! diff -u "$dir/expected" "$dir/actual"; then
  echo "the exported names differ from $list (- listed only, + exported only)"
  exit 1
fi
echo "exports: $(wc -l < "$dir/actual") names, as listed"
