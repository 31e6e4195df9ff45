#!/bin/sh
# The library opens FFmpeg's libraries at run time and never links them:
# none is a needed library, and no FFmpeg name is left undefined.
set -eu
lib=$1
if readelf -d "$lib" | grep -E 'NEEDED.*lib(av|sw)[a-z]*\.so'; then
  echo "FAIL: $lib links FFmpeg"
  exit 1
fi
if nm -D --undefined-only "$lib" | grep -E ' (av|avio|avcodec|avformat|sws|swr)_'; then
  echo "FAIL: $lib calls FFmpeg directly"
  exit 1
fi
echo "no FFmpeg link: passed"
