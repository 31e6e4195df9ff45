// The run-length codec of SGI rows.
#include "kelpimage/sgi/sgirle.h"

void rleExpand(const uint8_t* src, size_t srcBytes, unsigned unit, uint16_t* dst, int count) {
  size_t at = 0;
  auto next = [&](uint16_t& v) {
    if (at + unit > srcBytes) return false;
    v = unit == 1 ? src[at] : uint16_t(src[at] << 8 | src[at + 1]);
    at += unit;
    return true;
  };
  int remaining = count;
  uint16_t control;
  while (next(control)) {
    int n = control & 0x7F;
    if (n == 0) break;
    remaining -= n;
    if (remaining < 0) return;
    if (control & 0x80) {
      for (int i = 0; i < n; ++i) {
        uint16_t v = 0;
        if (!next(v)) {
          remaining += n - i;  // what the payload lacks is filled below
          break;
        }
        *dst++ = v;
      }
    } else {
      uint16_t v = 0;
      next(v);
      for (int i = 0; i < n; ++i) *dst++ = v;
    }
  }
  for (int i = 0; i < remaining; ++i) *dst++ = 0;
}

size_t rleCompact(const uint16_t* src, int count, unsigned unit, uint8_t* dst) {
  size_t units = 0;
  auto emit = [&](uint16_t v) {
    if (unit == 1) {
      dst[units] = uint8_t(v);
    } else {
      dst[2 * units] = uint8_t(v >> 8);
      dst[2 * units + 1] = uint8_t(v);
    }
    ++units;
  };
  long n = count, p = 0;
  auto packets = [&](long from, long length, bool literal) {
    while (length > 0) {
      int k = int(length > 126 ? 126 : length);
      emit(uint16_t(literal ? 0x80 | k : k));
      if (literal) {
        for (int i = 0; i < k; ++i) emit(src[from + i]);
      } else {
        emit(src[from]);
      }
      from += k;
      length -= k;
    }
  };
  while (p < n) {
    // A literal stretch runs until three equal samples begin, or to two before the end.
    long start = p;
    p += 2;
    while (p < n && !(src[p - 2] == src[p - 1] && src[p - 1] == src[p])) ++p;
    p -= 2;
    packets(start, p - start, true);
    if (p >= n) break;
    long run = p;
    while (p < n && src[p] == src[run]) ++p;
    packets(run, p - run, false);
  }
  emit(0);
  return units;
}
