#!/usr/bin/env bash
# Installs what building and testing kelp-image needs on a Debian machine.
# Does nothing when everything is there already. With the argument "fuzz" it
# also installs clang and its fuzzing runtime, for the fuzz preset.
set -euo pipefail

packages=(g++ cmake ninja-build pkg-config python3 libgtest-dev libgmock-dev libbenchmark-dev
          libpng-dev libjpeg62-turbo-dev libtiff-dev libgif-dev libopenexr-dev libwebp-dev
          libstb-dev libnetpbm-dev openimageio-tools
          libcli11-dev zlib1g-dev libmuparser-dev gzip binutils-mips-linux-gnu
          imagemagick netpbm python3-psd-tools gimp
          libavformat-dev libavcodec-dev libavutil-dev libswscale-dev ffmpeg)
if [ "${1:-}" = fuzz ]; then
  packages+=(clang libclang-rt-14-dev)
fi

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
