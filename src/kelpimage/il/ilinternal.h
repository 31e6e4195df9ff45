// Helpers shared by the image library's own files.
#pragma once

#include "kelpimage/il/il.h"

// Sets flerrno and returns the code.
inline int ILfail(int code) {
  flerrno = code;
  return code;
}

// Deletes the attached zoom, if any.
void ILdropzoom(ILimage* image);
// Binds the attached zoom again, for a changed channel size.
void ILrebindzoom(ILimage* image);
// The line server of the reader, as a zoom line callback on an image.
int ILserveline(void* image, uint8_t** line, float** zline);

// Chooses the tile size for the image size and computes `pages`.
void ILchooselayout(ILimage* image);

// Byte order helpers for the big-endian file format.
inline uint32_t ILbe32(const uint8_t* p) {
  return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}
inline uint16_t ILbe16(const uint8_t* p) { return uint16_t((p[0] << 8) | p[1]); }
inline void ILputbe32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}
inline void ILputbe16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v >> 8);
  p[1] = uint8_t(v);
}
