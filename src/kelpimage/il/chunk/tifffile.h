// Four-character chunk tags and the chunked file class.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelpimage/il/chunk/fl.h"
#include "kelpimage/kelpexport.h"

class KELP_API TiffTag {
 public:
  constexpr TiffTag(char a, char b, char c, char d)
      : fValue((uint32_t(uint8_t(a)) << 24) | (uint32_t(uint8_t(b)) << 16) | (uint32_t(uint8_t(c)) << 8) | uint8_t(d)) {
  }
  constexpr explicit TiffTag(const char (&s)[5]) : TiffTag(s[0], s[1], s[2], s[3]) {}
  constexpr explicit TiffTag(uint32_t value) : fValue(value) {}
  constexpr uint32_t value() const { return fValue; }
  constexpr bool operator==(const TiffTag& o) const { return fValue == o.fValue; }
  constexpr bool operator!=(const TiffTag& o) const { return fValue != o.fValue; }

 private:
  uint32_t fValue;
};

// A chunked file open on an FLfile record. beginPut, put and endPut write
// one chunk at the current position, raw bytes with no swapping.
class KELP_API TiffFile {
 public:
  TiffFile() = default;
  explicit TiffFile(FLfile* file) : fFile(file) {}
  TiffFile(const TiffFile&) = default;
  TiffFile& operator=(const TiffFile&) = default;
  virtual ~TiffFile() = default;

  FLfile* file() const { return fFile; }
  // `size` is what the caller expects to write; the header gets the real size at endPut.
  int beginPut(const TiffTag& tag, uint32_t size);
  int put(const void* data, size_t size);
  int endPut();

 protected:
  FLfile* fFile = nullptr;
};
