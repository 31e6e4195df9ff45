// Helpers shared by the image library's own files.
#pragma once

#include <new>

#include "kelpimage/byteorder.h"
#include "kelpimage/il/il.h"

// Sets flerrno and returns the code.
inline int ILfail(int code) {
  flerrno = code;
  return code;
}

// Runs an entry point so that no exception leaves the library: running out
// of memory gives FL_ENOMEM, anything else unexpected FL_EFIT.
template <class Body>
int ILguard(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return ILfail(FL_ENOMEM);
  } catch (...) {
    return ILfail(FL_EFIT);
  }
}
template <class Body>
auto ILguardpointer(Body body) noexcept -> decltype(body()) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    ILfail(FL_ENOMEM);
  } catch (...) {
    ILfail(FL_EFIT);
  }
  return nullptr;
}

// The header chunk's size in the file.
constexpr uint32_t kILheaderBytes = 32;

// The field of `tag`, or null; the header is not read for it.
ILfield* ILfindfield(ILimage* image, uint32_t tag);
// Replaces the field of `tag`; a null value or zero length just removes it.
ILfield* ILstorefield(ILimage* image, uint32_t tag, uint32_t length, const void* value);

// Deletes the attached zoom, if any.
void ILdropzoom(ILimage* image);
// Binds the attached zoom again, for a changed channel size.
void ILrebindzoom(ILimage* image);
// The line server of the reader, as a zoom line callback on an image.
int ILserveline(void* image, uint8_t** line, float** zline);

// Chooses the tile size for the image size and computes `pages`.
void ILchooselayout(ILimage* image);
