#!/bin/sh
# The library exports exactly the names in the list, all under one version,
# and each of them is declared in a public header (listed, one a line, in
# the file HEADERS when given).
# Usage: check-exports.sh LIBRARY LIST [--update | HEADERS]; --update
# rewrites the list from the library, for a change of interface that is meant.
set -eu
lib="$1"
list="$2"
update="${3:-}"
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
if [ "$update" = --update ]; then
  cp "$dir/actual" "$list"
  echo "exports: $list rewritten with $(wc -l < "$list") names"
  exit 0
fi
if [ -n "$update" ] && [ -f "$update" ]; then
  # shellcheck disable=SC2046
  python3 "$(dirname "$0")/public-names.py" "$dir/actual" $(cat "$update")
fi
LC_ALL=C sort -u "$list" > "$dir/expected"
if ! diff -u "$dir/expected" "$dir/actual"; then
  echo "the exported names differ from $list (- listed only, + exported only);"
  echo "if the change of interface is meant: sh $0 $lib $list --update"
  exit 1
fi
echo "exports: $(wc -l < "$dir/actual") names, as listed"
