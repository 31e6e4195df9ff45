// What a picture is: its size and where it lies, its channels and their
// roles, its samples as the file holds them, its frames, its resolution
// and its named fields.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "kelpimage/io/tsampletype.h"
#include "kelpimage/kelpexport.h"

struct KELP_API TimageInfo {
  int32_t width = 0, height = 0;
  // Where the pixels lie in the full picture, from its top left; a full
  // size of 0 is the picture's own.
  int32_t x = 0, y = 0;
  int32_t fullWidth = 0, fullHeight = 0;
  // Colour channels: 3 (red, green, blue) or 1 (grey); then alpha, if any.
  // They interleave in that order in a caller's buffer.
  int colorChannels = 3;
  bool alpha = false;
  // How the colour stands to the alpha in the file.
  Tassociation association = Tassociation::kStraight;
  // One channel of depth, always 32-bit floats in a buffer of its own, in
  // the IFF form: -1/z, 0 where there is no depth.
  bool depth = false;
  // The samples of colour and alpha as the file holds them (bits: how
  // many of them mean something, 1 to 16, or 16/32 for halves and floats).
  TsampleType sampleType = TsampleType::kUint8;
  int bits = 8;
  int frames = 1;
  double pixelAspect = 1.0;               // a pixel's width over its height
  double dpi = 0.0;                       // 0: none stored
  int32_t tileWidth = 0, tileHeight = 0;  // 0: stored in lines
  std::string compression;
  // Named fields, their values as the file keeps their bytes (an IFF
  // file's by their four-character tags).
  std::vector<std::pair<std::string, std::string>> fields;
  // What else the file says of itself, for people to read ("version",
  // "colour", "layers"...): never written back.
  std::vector<std::pair<std::string, std::string>> details;

  // Colour and alpha, the samples a pixel holds in an interleaved buffer.
  int channels() const { return colorChannels + (alpha ? 1 : 0); }
  // The name of channel i: "R", "G", "B", "Y" or "A".
  const char* channelName(int i) const;
  // Bytes of one row of interleaved pixels of `type`.
  size_t rowBytes(TsampleType type) const;
  int32_t displayWidth() const { return fullWidth > 0 ? fullWidth : width; }
  int32_t displayHeight() const { return fullHeight > 0 ? fullHeight : height; }
};
