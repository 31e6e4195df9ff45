// Big-endian reading of a document, every read checked against the bytes
// that remain. A short or damaged file throws TpsdDamaged, which the
// document's public operations turn into a failure.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "kelpimage/base/tstring.h"

namespace zkPhotoshop {

struct TpsdDamaged {
  std::string reason;
};

class TpsdStream {
 public:
  // False when the file cannot be opened for reading.
  bool open(const Tstring& path);
  bool isOpen() const { return fFile != nullptr; }

  uint8_t u8();
  uint16_t u16();
  int16_t i16() { return int16_t(u16()); }
  uint32_t u32();
  int32_t i32() { return int32_t(u32()); }
  void read(void* dst, size_t count);
  // `count` bytes into a new buffer `extra` zero bytes longer; the count is
  // checked before anything is allocated.
  std::vector<uint8_t> bytes(uint64_t count, size_t extra = 0, const char* what = "data");
  void skip(int64_t count);
  void seek(int64_t position);
  int64_t tell() const { return fPosition; }
  int64_t size() const { return fSize; }
  int64_t remaining() const { return fSize - fPosition; }
  // Throws unless `count` bytes remain.
  void require(uint64_t count, const char* what) const;
  // The next four bytes, without moving; 0 when fewer remain.
  uint32_t peek32();

 private:
  struct Closer {
    void operator()(std::FILE* f) const { std::fclose(f); }
  };
  std::unique_ptr<std::FILE, Closer> fFile;
  int64_t fSize = 0;
  int64_t fPosition = 0;
};

[[noreturn]] void damaged(const std::string& reason);

// Big-endian writing into a file; the first failure is kept.
class TpsdOut {
 public:
  explicit TpsdOut(std::FILE* f) : fFile(f) {}
  void bytes(const void* p, size_t n) {
    if (n && fOk && std::fwrite(p, 1, n, fFile) != n) fOk = false;
  }
  void bytes(const std::vector<uint8_t>& v, size_t n) { bytes(v.data(), std::min(n, v.size())); }
  void u8(uint32_t v) {
    uint8_t b = uint8_t(v);
    bytes(&b, 1);
  }
  void u16(uint32_t v) {
    uint8_t b[2] = {uint8_t(v >> 8), uint8_t(v)};
    bytes(b, 2);
  }
  void u32(uint32_t v) {
    uint8_t b[4] = {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
    bytes(b, 4);
  }
  void zeros(uint64_t n) {
    static const uint8_t none[64] = {};
    while (n) {
      size_t k = size_t(std::min<uint64_t>(n, sizeof none));
      bytes(none, k);
      n -= k;
    }
  }
  bool ok() const { return fOk; }

 private:
  std::FILE* fFile;
  bool fOk = true;
};

// Four characters as a big-endian value, as the file's keys are compared.
constexpr uint32_t fourCC(const char (&s)[5]) {
  return uint32_t(uint8_t(s[0])) << 24 | uint32_t(uint8_t(s[1])) << 16 | uint32_t(uint8_t(s[2])) << 8 |
         uint32_t(uint8_t(s[3]));
}

// The signatures that start an additional block.
constexpr bool isBlockSignature(uint32_t v) { return v == fourCC("8BIM") || v == fourCC("8B64"); }

// Writers pad block data to two or four bytes, some without counting the
// pad in the length: the next signature is looked for over those bytes,
// up to `end`. The number of bytes skipped.
uint32_t skipBlockPad(TpsdStream& stream, int64_t end);

}  // namespace zkPhotoshop
