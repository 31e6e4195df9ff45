#include "kelpimage/io/samples.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <vector>

namespace kelpio {

namespace {

template <typename T>
T load(const void* p, size_t i) {
  T v;
  std::memcpy(&v, static_cast<const uint8_t*>(p) + i * sizeof(T), sizeof(T));
  return v;
}

template <typename T>
void store(void* p, size_t i, T v) {
  std::memcpy(static_cast<uint8_t*>(p) + i * sizeof(T), &v, sizeof(T));
}

// A sample as a number where 1 is full.
float unit(const void* p, TsampleType type, size_t i) {
  switch (type) {
    case TsampleType::kUint8: return float(load<uint8_t>(p, i)) * (1.0f / 255.0f);
    case TsampleType::kUint16: return float(load<uint16_t>(p, i)) * (1.0f / 65535.0f);
    case TsampleType::kHalf: return halfToFloat(load<uint16_t>(p, i));
    case TsampleType::kFloat: return load<float>(p, i);
  }
  return 0.0f;
}

uint32_t quantise(float v, uint32_t top) {
  if (!(v > 0.0f)) return 0;  // NaN too
  if (v >= 1.0f) return top;
  return uint32_t(std::lrint(double(v) * top));
}

void put(void* p, TsampleType type, size_t i, float v) {
  switch (type) {
    case TsampleType::kUint8: store<uint8_t>(p, i, uint8_t(quantise(v, 255))); break;
    case TsampleType::kUint16: store<uint16_t>(p, i, uint16_t(quantise(v, 65535))); break;
    case TsampleType::kHalf: store<uint16_t>(p, i, floatToHalf(v)); break;
    case TsampleType::kFloat: store<float>(p, i, v); break;
  }
}

template <typename T, uint32_t kTop>
void premultiplyInts(T* p, int channels, size_t pixels) {
  for (size_t x = 0; x < pixels; ++x, p += channels) {
    uint32_t a = p[channels - 1];
    for (int c = 0; c + 1 < channels; ++c) p[c] = T((uint64_t(p[c]) * a + kTop / 2) / kTop);
  }
}

// Opaque pixels stay as they are ((v * top + top / 2) / top is v); the
// rest divide in 32 bits, where top * top + top / 2 still fits.
template <typename T, uint32_t kTop>
void unpremultiplyInts(T* p, int channels, size_t pixels) {
  for (size_t x = 0; x < pixels; ++x, p += channels) {
    const uint32_t a = p[channels - 1];
    if (a == kTop) continue;
    for (int c = 0; c + 1 < channels; ++c)
      p[c] = a == 0 ? T(0) : T(std::min<uint32_t>(kTop, (uint32_t(p[c]) * kTop + a / 2) / a));
  }
}

}  // namespace

float halfToFloat(uint16_t h) {
  uint32_t sign = uint32_t(h & 0x8000u) << 16, exponent = (h >> 10) & 0x1F, mantissa = h & 0x3FF, bits;
  if (exponent == 0) {
    if (mantissa == 0) {
      bits = sign;
    } else {  // subnormal: make it normal
      exponent = 127 - 15 + 1;
      while (!(mantissa & 0x400)) {
        mantissa <<= 1;
        --exponent;
      }
      bits = sign | (exponent << 23) | ((mantissa & 0x3FF) << 13);
    }
  } else if (exponent == 31) {
    bits = sign | 0x7F800000u | (mantissa << 13);
  } else {
    bits = sign | ((exponent + 127 - 15) << 23) | (mantissa << 13);
  }
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

uint16_t floatToHalf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, 4);
  uint32_t sign = (bits >> 16) & 0x8000u;
  uint32_t exponent = (bits >> 23) & 0xFF, mantissa = bits & 0x7FFFFF;
  if (exponent == 0xFF) return uint16_t(sign | 0x7C00u | (mantissa ? 0x200u : 0u));  // infinity, NaN
  int e = int(exponent) - 127 + 15;
  if (e >= 31) return uint16_t(sign | 0x7C00u);  // past the largest half
  if (e <= 0) {
    if (e < -10) return uint16_t(sign);  // below the smallest subnormal: zero
    mantissa |= 0x800000u;
    uint32_t shift = uint32_t(14 - e);
    uint32_t half = mantissa >> shift, rest = mantissa & ((1u << shift) - 1), middle = 1u << (shift - 1);
    if (rest > middle || (rest == middle && (half & 1))) ++half;
    return uint16_t(sign | half);
  }
  uint32_t half = (uint32_t(e) << 10) | (mantissa >> 13), rest = mantissa & 0x1FFF;
  if (rest > 0x1000 || (rest == 0x1000 && (half & 1))) ++half;  // may carry into the exponent, as it should
  return uint16_t(sign | half);
}

TsampleType widerType(TsampleType a, TsampleType b) {
  auto rank = [](TsampleType t) {
    switch (t) {
      case TsampleType::kUint8: return 0;
      case TsampleType::kUint16: return 1;
      case TsampleType::kHalf: return 1;
      case TsampleType::kFloat: return 2;
    }
    return 0;
  };
  if (a == b) return a;
  if ((a == TsampleType::kUint16 && b == TsampleType::kHalf) || (a == TsampleType::kHalf && b == TsampleType::kUint16))
    return TsampleType::kFloat;
  return rank(a) >= rank(b) ? a : b;
}

void convertSamples(const void* from, TsampleType fromType, void* to, TsampleType toType, size_t count) {
  if (fromType == toType) {
    if (from != to) std::memmove(to, from, count * TsampleBytes(fromType));
    return;
  }
  if (fromType == TsampleType::kUint8 && toType == TsampleType::kUint16) {
    // Backwards, so that a buffer can widen in place.
    for (size_t i = count; i-- > 0;) store<uint16_t>(to, i, uint16_t(load<uint8_t>(from, i) * 257u));
    return;
  }
  if (fromType == TsampleType::kUint16 && toType == TsampleType::kUint8) {
    for (size_t i = 0; i < count; ++i)
      store<uint8_t>(to, i, uint8_t((load<uint16_t>(from, i) * 255u + 32767u) / 65535u));
    return;
  }
  if (TsampleBytes(toType) > TsampleBytes(fromType)) {
    for (size_t i = count; i-- > 0;) put(to, toType, i, unit(from, fromType, i));
  } else {
    for (size_t i = 0; i < count; ++i) put(to, toType, i, unit(from, fromType, i));
  }
}

void premultiply(void* row, TsampleType type, int channels, size_t pixels) {
  if (channels < 2) return;
  switch (type) {
    case TsampleType::kUint8: premultiplyInts<uint8_t, 255>(static_cast<uint8_t*>(row), channels, pixels); return;
    case TsampleType::kUint16: premultiplyInts<uint16_t, 65535>(static_cast<uint16_t*>(row), channels, pixels); return;
    default: break;
  }
  for (size_t x = 0; x < pixels; ++x) {
    size_t at = x * size_t(channels);
    float a = unit(row, type, at + size_t(channels) - 1);
    for (int c = 0; c + 1 < channels; ++c) put(row, type, at + size_t(c), unit(row, type, at + size_t(c)) * a);
  }
}

void unpremultiply(void* row, TsampleType type, int channels, size_t pixels) {
  if (channels < 2) return;
  switch (type) {
    case TsampleType::kUint8: unpremultiplyInts<uint8_t, 255>(static_cast<uint8_t*>(row), channels, pixels); return;
    case TsampleType::kUint16:
      unpremultiplyInts<uint16_t, 65535>(static_cast<uint16_t*>(row), channels, pixels);
      return;
    default: break;
  }
  for (size_t x = 0; x < pixels; ++x) {
    size_t at = x * size_t(channels);
    float a = unit(row, type, at + size_t(channels) - 1);
    for (int c = 0; c + 1 < channels; ++c)
      put(row, type, at + size_t(c), a == 0.0f ? 0.0f : unit(row, type, at + size_t(c)) / a);
  }
}

void convertPixels(const void* from, TsampleType fromType, Tassociation fromAssociation, void* to, TsampleType toType,
                   Tassociation toAssociation, int channels, bool alpha, size_t pixels, std::vector<uint8_t>& scratch) {
  size_t count = pixels * size_t(channels);
  if (!alpha || fromAssociation == toAssociation) {
    convertSamples(from, fromType, to, toType, count);
    return;
  }
  TsampleType work = widerType(fromType, toType);
  void* row = to;
  if (work != toType) {
    scratch.resize(count * TsampleBytes(work));
    row = scratch.data();
  }
  convertSamples(from, fromType, row, work, count);
  if (toAssociation == Tassociation::kPremultiplied)
    premultiply(row, work, channels, pixels);
  else
    unpremultiply(row, work, channels, pixels);
  if (row != to) convertSamples(row, work, to, toType, count);
}

void swapRedBlue(const uint8_t* from, uint8_t* to, size_t pixels) {
  size_t x = 0;
  if constexpr (std::endian::native == std::endian::little) {
    // Four pixels at a time, each a little-endian word: bytes 0 and 2 trade places.
    using Words4 = uint32_t __attribute__((vector_size(16)));
    for (; x + 4 <= pixels; x += 4) {
      Words4 v;
      std::memcpy(&v, from + x * 4, 16);
      v = (v & 0xFF00FF00u) | ((v >> 16) & 0xFFu) | ((v & 0xFFu) << 16);
      std::memcpy(to + x * 4, &v, 16);
    }
  }
  for (; x < pixels; ++x) {
    const uint8_t* p = from + x * 4;
    uint8_t* o = to + x * 4;
    uint8_t red = p[2];
    o[2] = p[0], o[1] = p[1], o[0] = red, o[3] = p[3];
  }
}

}  // namespace kelpio
