// Byte order, in one place: the formats are big-endian on disk (SGI files may
// also come little-endian, and some plug-in formats are), whatever the
// machine is.
#pragma once

#include <cstdint>

namespace kelp {

inline uint16_t getBE16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline uint32_t getBE32(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline void putBE16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v >> 8);
  p[1] = uint8_t(v);
}
inline void putBE32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}
// Little-endian fields, for the formats of other platforms.
inline uint16_t getLE16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline void putLE16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}
inline uint32_t getLE32(const uint8_t* p) {
  return (uint32_t(p[3]) << 24) | (uint32_t(p[2]) << 16) | (uint32_t(p[1]) << 8) | p[0];
}
inline void putLE32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
  p[2] = uint8_t(v >> 16);
  p[3] = uint8_t(v >> 24);
}
inline uint16_t swap16(uint16_t v) { return __builtin_bswap16(v); }
inline uint32_t swap32(uint32_t v) { return __builtin_bswap32(v); }

}  // namespace kelp
