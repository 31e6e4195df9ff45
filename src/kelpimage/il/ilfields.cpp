// Named fields: short values under a 32-bit tag whose low nibble gives the
// element size for byte swapping and whose bit 0x10 says the field is copied.
#include <bit>
#include <cstring>
#include <utility>

#include "kelpimage/il/ilinternal.h"

namespace {
constexpr uint32_t round4(uint32_t n) { return (n + 3u) & ~3u; }

// Turns `n` bytes between machine order and the file's big-endian elements.
void swapValue(uint8_t* p, uint32_t n, uint32_t tag) {
  if constexpr (std::endian::native == std::endian::big) return;
  switch (tag & 0xF) {
    case 2:
      for (uint32_t i = 0; i + 2 <= n; i += 2) std::swap(p[i], p[i + 1]);
      break;
    case 4:
      for (uint32_t i = 0; i + 4 <= n; i += 4) {
        std::swap(p[i], p[i + 3]);
        std::swap(p[i + 1], p[i + 2]);
      }
      break;
    case 8:
      for (uint32_t i = 0; i + 8 <= n; i += 8)
        for (int k = 0; k < 4; ++k) std::swap(p[i + k], p[i + 7 - k]);
      break;
    default: break;
  }
}

}  // namespace

ILfield* ILfindfield(ILimage* image, uint32_t tag) {
  return reinterpret_cast<ILfield*>(FLgetnodebytype(&image->fields, tag));
}

ILfield* ILstorefield(ILimage* image, uint32_t tag, uint32_t length, const void* value) {
  if (ILfield* old = ILfindfield(image, tag)) {
    FLdelnode(&old->node);
    FLfree(old);
  }
  if (!value || length == 0) return nullptr;
  size_t bytes = offsetof(ILfield, value) + round4(length);
  auto* field = static_cast<ILfield*>(FLcalloc(bytes, image->mkey));
  if (!field) return nullptr;
  field->length = length;
  std::memcpy(field->value, value, length);
  FLinitnode(&field->node, nullptr, tag);
  FLheadnode(&image->fields, &field->node);
  return field;
}

void ILinitfields(ILimage* image) {
  for (FLnode* n = image->fields.head; n;) {
    FLnode* next = n->next;
    FLfree(n);
    n = next;
  }
  FLinitlist(&image->fields);
}

int ILsetfield(ILimage* image, uint32_t tag, uint32_t length, const void* value) {
  if (image->ictl & ILC_HEADER) return ILfail(IL_EFIXED);
  ILstorefield(image, tag, length, value);
  return 0;
}

int ILreadfields(ILimage* image) {
  uint32_t tag = 0, size = 0;
  if (FLbgnget(image, &tag, nullptr) != 0 || tag != IL_FLDS) return 0;
  auto* data = static_cast<const uint8_t*>(FLgetchunk(image, nullptr, &size));
  if (!data) return flerrno;
  uint32_t at = 0;
  while (size - at >= 8) {
    uint32_t ftag;
    std::memcpy(&ftag, data + at, 4);  // the tag word lies as the writer's machine had it
    uint32_t length = kelp::getBE32(data + at + 4);
    if (ftag == 0 || length == 0) break;
    if (length > size - at - 8) return ILfail(FL_EFIT);
    if (ILfield* field = ILstorefield(image, ftag, length, data + at + 8))
      swapValue(field->value, round4(length), ftag);
    uint32_t step = round4(length);
    at += 8 + (step <= size - at - 8 ? step : size - at - 8);
  }
  return 0;
}

int ILwritefields(ILimage* image) {
  uint64_t sum = 0;
  for (FLnode* n = image->fields.head; n; n = n->next) sum += round4(reinterpret_cast<ILfield*>(n)->length) + 8;
  if (sum == 0) return 0;
  if (sum + 8 > UINT32_MAX) return ILfail(FL_EBADSIZE);
  auto* out = static_cast<uint8_t*>(FLbgnwbchunk(image, IL_FLDS, uint32_t(sum + 8)));
  if (!out) return flerrno;
  uint8_t* p = out;
  for (FLnode* n = image->fields.head; n; n = n->next) {
    auto* field = reinterpret_cast<ILfield*>(n);
    uint32_t padded = round4(field->length);
    std::memcpy(p, &field->node.type, 4);
    kelp::putBE32(p + 4, field->length);
    std::memcpy(p + 8, field->value, padded);  // the rounding bytes are zero
    swapValue(p + 8, padded, field->node.type);
    p += 8 + padded;
  }
  std::memset(p, 0, 8);
  return FLendwbchunk(image, uint32_t(sum + 8));
}
