#!/bin/sh
# Installs the build into a temporary prefix and uses it as a host would:
# every installed header compiles alone, the README's library example builds
# with find_package and with pkg-config and runs on a sample picture, and the
# installed kimg starts.
# Usage: install-and-consume.sh BUILD_DIR SOURCE_DIR
set -eu
build="$1"
source="$2"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
prefix="$dir/prefix"

cmake --install "$build" --prefix "$prefix" > /dev/null

# Each installed header on its own.
count=0
for header in $(cd "$prefix/include" && find kelpimage -name '*.h' | sort); do
  printf '#include <%s>\n' "$header" > "$dir/one.cpp"
  c++ -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" "$dir/one.cpp" ||
    { echo "installed header $header does not compile alone"; exit 1; }
  count=$((count + 1))
done
echo "headers: $count installed, each compiles alone"

# The README's example, exactly as written there.
mkdir -p "$dir/consumer"
awk '/^<!-- library example -->$/ {on = 1; next} on && /^```c\+\+$/ {copy = 1; next}
     copy && /^```$/ {exit} copy {print}' "$source/README.md" > "$dir/consumer/example.cpp"
[ -s "$dir/consumer/example.cpp" ] || { echo "no library example in README.md"; exit 1; }
cp "$source/tests/package/consumer/CMakeLists.txt" "$dir/consumer/"

cmake -S "$dir/consumer" -B "$dir/consumer/build" -DCMAKE_PREFIX_PATH="$prefix" > /dev/null
cmake --build "$dir/consumer/build" > /dev/null
"$dir/consumer/build/example" "$source/samples/pattern-rgba-depth.iff" "$dir/copy-cmake.iff"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kelpimage.pc)")
export PKG_CONFIG_PATH
c++ -std=c++20 "$dir/consumer/example.cpp" -o "$dir/example-pc" $(pkg-config --cflags --libs kelpimage) \
  -Wl,-rpath,"$(pkg-config --variable=libdir kelpimage)"
"$dir/example-pc" "$source/samples/pattern-rgba-depth.iff" "$dir/copy-pc.iff"

# The installed tool finds the installed library by its run path, and both
# copies hold the sample's pixels (the files differ only in their stamps).
"$prefix/bin/kimg" info --stats "$source/samples/pattern-rgba-depth.iff" | tail -n +2 > "$dir/stats-in"
for copy in copy-cmake copy-pc; do
  "$prefix/bin/kimg" info --stats "$dir/$copy.iff" | tail -n +2 | diff "$dir/stats-in" - ||
    { echo "$copy.iff is not the sample"; exit 1; }
done
# The plug-ins are installed beside the library, where it looks for them.
plugins=$(find "$prefix" -type d -path '*kelpimage/plug-ins/image')
[ -n "$plugins" ] && [ -e "$plugins/png.so" ] || { echo "no plug-ins installed"; exit 1; }
"$prefix/bin/kimg" pattern "$dir/p.iff" --size 32x16
PXF_PLUG_IN_PATH="$plugins" "$prefix/bin/kimg" convert "$dir/p.iff" "$dir/p.png"
PXF_PLUG_IN_PATH="$plugins" "$prefix/bin/kimg" info "$dir/p.png" | grep -q "format       PNG (png)"
echo "installed package: CMake and pkg-config consumers build and run; kimg and its plug-ins start"
