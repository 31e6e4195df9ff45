// Small pieces the format plug-ins share.
#pragma once

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kelpimage/il/il.h"

namespace pxfplugin {

// Writes a reason into a plug-in's error buffer; gives -1, the failure.
inline int fail(char* error, size_t size, const char* format, ...) {
  if (!error || size == 0) return -1;
  va_list args;
  va_start(args, format);
  std::vsnprintf(error, size, format, args);
  va_end(args);
  return -1;
}

// The value of a capability setting, or `fallback`.
inline float setting(PxfCapSetting* const* settings, int16_t code, float fallback) {
  for (; settings && *settings; ++settings)
    if ((*settings)->code == code) return (*settings)->value;
  return fallback;
}

// Channel buffers hold samples of 1, 2 or 4 bytes; these copy one row
// between them and interleaved pixels of `count` channels. The loops are
// made for each sample size, so that a row costs a few instructions a sample.
template <typename T>
void interleaveSamples(const void* const* channels, int first, int count, uint8_t* pixels, int32_t width, int stride) {
  for (int c = 0; c < count; ++c) {
    auto* from = static_cast<const uint8_t*>(channels[first + c]);
    uint8_t* to = pixels + size_t(c) * sizeof(T);
    for (int32_t x = 0; x < width; ++x) {
      T v;
      std::memcpy(&v, from + size_t(x) * sizeof(T), sizeof(T));
      std::memcpy(to + size_t(x) * size_t(stride) * sizeof(T), &v, sizeof(T));
    }
  }
}

template <typename T>
void deinterleaveSamples(const uint8_t* pixels, int stride, void* const* channels, int first, int count, int32_t width) {
  for (int c = 0; c < count; ++c) {
    auto* to = static_cast<uint8_t*>(channels[first + c]);
    const uint8_t* from = pixels + size_t(c) * sizeof(T);
    for (int32_t x = 0; x < width; ++x) {
      T v;
      std::memcpy(&v, from + size_t(x) * size_t(stride) * sizeof(T), sizeof(T));
      std::memcpy(to + size_t(x) * sizeof(T), &v, sizeof(T));
    }
  }
}

inline void interleave(const void* const* channels, int first, int count, int bytes, uint8_t* pixels, int32_t width,
                       int stride) {
  if (bytes == 1) interleaveSamples<uint8_t>(channels, first, count, pixels, width, stride);
  else if (bytes == 2) interleaveSamples<uint16_t>(channels, first, count, pixels, width, stride);
  else interleaveSamples<uint32_t>(channels, first, count, pixels, width, stride);
}

inline void deinterleave(const uint8_t* pixels, int stride, int bytes, void* const* channels, int first, int count,
                         int32_t width) {
  if (bytes == 1) deinterleaveSamples<uint8_t>(pixels, stride, channels, first, count, width);
  else if (bytes == 2) deinterleaveSamples<uint16_t>(pixels, stride, channels, first, count, width);
  else deinterleaveSamples<uint32_t>(pixels, stride, channels, first, count, width);
}

// The parts of an image record every picture read has: its windows and
// aspect, the order of its rows, the "rgb" kind, and colour and matte
// channels of the given count and bits.
inline void describePicture(PxfImageData* image, int32_t width, int32_t height, int32_t orientation, int colors,
                            bool matte, int32_t bits) {
  image->windowRight = image->window2[1] = width - 1;
  image->windowTop = image->window2[3] = height - 1;
  image->aspectWidth = width;
  image->aspectHeight = height;
  image->aspectRatio = float(width) / float(height);
  image->orientation = orientation;
  image->dataKind = "rgb";
  image->colorChannels = colors;
  image->colorBits = bits;
  image->matteChannels = matte ? 1 : 0;
  image->matteBits = bits;
}

// Closes a stream a plug-in wrote through: -1 with the reason when any of
// it did not reach the file. `file` is null afterwards.
inline int closeWritten(FILE*& file, char* error, size_t size) {
  int rc = 0;
  if (std::fflush(file) != 0 || std::ferror(file)) rc = fail(error, size, "%s", std::strerror(errno));
  if (std::fclose(file) != 0) rc = fail(error, size, "%s", std::strerror(errno));
  file = nullptr;
  return rc;
}

// Closes a stream a plug-in wrote `rows` rows of a picture of `height` to:
// -1 with the reason when rows are missing or any byte did not reach the file.
inline int finishWritten(FILE*& file, int32_t rows, int32_t height, char* error, size_t size) {
  int rc = rows == height ? 0 : fail(error, size, "only %d of %d rows were written", rows, height);
  if (closeWritten(file, rc == 0 ? error : nullptr, size) != 0) rc = -1;
  return rc;
}

// Whether a picture of this size may be held whole: within the library's
// pixel limit (ILmaxpixels), checked before anything is allocated for it.
inline bool wholeAllowed(uint64_t width, uint64_t height) { return width * height <= ILmaxpixels(0); }

constexpr int16_t kDpiCode = 1;
constexpr int16_t kQualityCode = 2;
constexpr int16_t kCompressionCode = 3;

}  // namespace pxfplugin
