#!/usr/bin/env bash
# Installs what kelp-image needs on a Debian machine, and nothing that is
# there already. The argument names the job:
#   build  (the default) the compiler, CMake and the libraries kimg and the
#          plug-ins are built on: enough to build and run kimg;
#   test   the above, GoogleTest, clang-format, the Python package's needs (NumPy,
#          pybind11, Dask, pytest) and the independent tools the tests hold
#          the library against (ImageMagick, OpenImageIO, netpbm, PIL,
#          psd-tools, FFmpeg);
#   bench  the above, Google Benchmark and the peers the benchmarks time
#          (libvips, OpenImageIO, ImageMagick);
#   fuzz   the above and clang with its fuzzing runtime, for the fuzz preset.
set -euo pipefail

build=(g++ cmake ninja-build pkg-config python3
       libpng-dev libjpeg62-turbo-dev libtiff-dev libgif-dev libopenexr-dev libwebp-dev libstb-dev libnetpbm-dev
       libcli11-dev zlib1g-dev libmuparser-dev
       libavformat-dev libavcodec-dev libavutil-dev libswscale-dev)
test=(libgtest-dev libgmock-dev gzip binutils-mips-linux-gnu clang-format
      python3-dev python3-numpy pybind11-dev python3-pybind11 python3-pytest python3-dask python3-distributed
      imagemagick openimageio-tools netpbm python3-pil python3-psd-tools ffmpeg)
bench=(libbenchmark-dev libvips-tools python3-matplotlib)
fuzz=(clang libclang-rt-14-dev)

packages=("${build[@]}")
case "${1:-build}" in
  build) ;;
  test) packages+=("${test[@]}") ;;
  bench) packages+=("${test[@]}" "${bench[@]}") ;;
  fuzz) packages+=("${test[@]}" "${fuzz[@]}") ;;
  *) echo "setup.sh: build, test, bench or fuzz, not $1" >&2; exit 2 ;;
esac

missing=()
for p in "${packages[@]}"; do
  dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi
