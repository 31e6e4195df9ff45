// Helpers shared by the image library's own files.
#pragma once

#include "kelpimage/byteorder.h"
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
