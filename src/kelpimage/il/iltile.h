// A tile met in a file and not finished with, kept on the handle's tile list.
#pragma once

#include "kelpimage/il/ilinternal.h"

constexpr uint32_t ILTILE_INNODE = 1;   // the payload is in the node
constexpr uint32_t ILTILE_DECODED = 2;  // the tile is decoded into the band buffers
constexpr uint32_t ILTILE_DEPTH = 4;    // a ZBUF tile

struct ILtile {
  FLnode node;  // type word: ILTILE_ flags
  uint64_t position;
  uint32_t size;  // payload size; once decoded the tile's width
  uint16_t x1, y1, x2, y2;
  uint8_t data[8];  // the payload, for a tile copied into memory
};

// Reads a tile's rectangle, four big-endian u16; false if short or outside the image.
bool ILreadrect(ILimage* image, uint16_t rect[4]);

// Skips the chunks behind the header and enters the tile group.
int ILenterbitmap(ILimage* image);
