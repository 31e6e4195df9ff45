// SGI rgb raster files, read and written a row at a time on plain file
// descriptors, verbatim or run-length, 1 or 2 bytes a sample, 1 to 3
// dimensions. Rows are handed over as 16-bit samples.
#pragma once

#include <cstdint>

#include "kelpimage/kelpexport.h"

struct IMAGE {
  uint16_t magic;
  uint16_t type;  // high byte: storage (0 verbatim, 1 run-length); low byte: bytes a sample
  uint16_t dim;
  uint16_t xsize, ysize, zsize;
  uint32_t min, max, wastebytes;
  char name[80];
  uint32_t colormap;
  // Run-time state.
  int32_t file;
  uint16_t flags;
  int16_t swapped;
  uint16_t x, y, z;
  int16_t cnt;
  uint16_t* ptr;
  uint16_t* base;
  uint8_t* tmpbuf;
  uint32_t offset;
  uint32_t rleend;
  uint32_t* rowstart;
  int32_t* rowsize;
  uint32_t bufsize;  // bytes of tmpbuf and base
};

// Storage of `type`.
constexpr unsigned SGI_VERBATIM = 0x0000;
constexpr unsigned SGI_RLE = 0x0100;

KELP_API IMAGE* iopen(const char* file, const char* mode, unsigned type = 0, unsigned dim = 0, unsigned xsize = 0,
                      unsigned ysize = 0, unsigned zsize = 0);
KELP_API int iclose(IMAGE* image);
KELP_API int getrow(IMAGE* image, uint16_t* buffer, unsigned y, unsigned z);
KELP_API int putrow(IMAGE* image, const uint16_t* buffer, unsigned y, unsigned z);
