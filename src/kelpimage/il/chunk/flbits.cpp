// Bit counts per byte value, and the highest bit set in a word.
#include <array>

#include "kelpimage/il/chunk/fl.h"

namespace {
constexpr std::array<uint8_t, 256> makeBitTable() {
  std::array<uint8_t, 256> t{};
  for (int i = 0; i < 256; ++i) {
    int n = 0;
    for (int v = i; v; v >>= 1) n += v & 1;
    t[size_t(i)] = uint8_t(n);
  }
  return t;
}
constexpr auto kBits = makeBitTable();
}  // namespace

const uint8_t flbitset[256] = {
#define B(i) kBits[i]
#define R8(i) B(i), B(i + 1), B(i + 2), B(i + 3), B(i + 4), B(i + 5), B(i + 6), B(i + 7)
#define R64(i) R8(i), R8(i + 8), R8(i + 16), R8(i + 24), R8(i + 32), R8(i + 40), R8(i + 48), R8(i + 56)
    R64(0), R64(64), R64(128), R64(192)
#undef R64
#undef R8
#undef B
};

int FLhbset(uint32_t value) { return value ? 31 - __builtin_clz(value) : -1; }
