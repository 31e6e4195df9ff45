// Opens bytes as an IFF file and reads everything in it: header, fields,
// pixels by tiles and by lines, on one thread or two, every image of the file.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kelpimage/il/il.h"

namespace {
std::string scratchFile() {
  static std::string name = "/dev/shm/kelp_fuzz_" + std::to_string(getpid()) + ".iff";
  return name;
}

void readAll(const char* name, bool byLines, bool deep, bool zoom, bool threads) {
  ILimage* im = ILopen(name, "r");
  if (!im) return;
  // Whole images with the next tiles read while the last decode, and a zoom
  // that reads its lines a batch ahead.
  if (threads) ILsetthreads(im, 2);
  for (int image = 0; image < 4; ++image) {
    if (!ILgetheader(im)) break;
    const void* value;
    ILgetfield(im, IL_DPI, &value);
    {
      if (deep) ILsetbpp(im, 2);
      if (byLines) ILctrl(im, ILC_TOPDOWN, 1);
      if (zoom) ILsetsize(im, int32_t(1 + im->width / 3), int32_t(1 + im->height * 2 % 100));
      if (zoom && threads && im->zoom) ILsetzoomthreads(im->zoom, 2);
      // Deep reading keeps the file's channel size, up to four bytes; a
      // zoom gives its own size.
      int32_t w = 0, h = 0;
      ILgetsize(im, &w, &h);
      size_t pixels = size_t(w) * size_t(h);
      std::vector<uint8_t> color(pixels * 4 * 4);
      std::vector<float> z(pixels);
      ILload(im, color.data(), z.data());
    }
    if (ILnext(im) != 0) break;
  }
  ILclose(im);
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Callers size their buffers from the header, which the library checks
  // against its pixel limit; a small limit keeps each run quick. Files that
  // are not in the format are refused at open (no converter is installed).
  ILmaxpixels(1u << 20);
  if (size < 1) return 0;
  std::string name = scratchFile();
  FILE* f = std::fopen(name.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  uint8_t mode = data[size - 1];
  readAll(name.c_str(), mode & 1, mode & 2, mode & 4, mode & 8);
  return 0;
}
