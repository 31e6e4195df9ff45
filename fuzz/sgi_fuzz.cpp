// Opens bytes as an SGI file and reads every row of every channel.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kelpimage/sgi/sgi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static std::string name = "/dev/shm/kelp_sgi_fuzz_" + std::to_string(getpid()) + ".sgi";
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  IMAGE* im = iopen(name.c_str(), "r");
  if (!im) return 0;
  std::vector<uint16_t> row(size_t(im->xsize) + 1);
  unsigned rows = im->ysize < 512 ? im->ysize : 512, planes = im->zsize < 8 ? im->zsize : 8;
  for (unsigned z = 0; z < planes; ++z)
    for (unsigned y = 0; y < rows; ++y) getrow(im, row.data(), y, z);
  getrow(im, row.data(), 70000, 70000);
  iclose(im);
  return 0;
}
