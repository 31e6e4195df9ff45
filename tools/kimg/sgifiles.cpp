#include "sgifiles.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <vector>

#include "kelpimage/sgi/sgi.h"
#include "util.h"

namespace kimg {

bool isSgi(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  unsigned char b[2] = {};
  in.read(reinterpret_cast<char*>(b), 2);
  return in && ((b[0] == 0x01 && b[1] == 0xDA) || (b[0] == 0xDA && b[1] == 0x01));
}

int infoSgi(const std::string& file, bool stats) {
  IMAGE* im = iopen(file.c_str(), "r");
  if (!im) return fail(file, "cannot be read as an SGI image");
  unsigned bpp = im->type & 0xFF;
  std::printf("%s\n", file.c_str());
  std::printf("  format       SGI, %s\n", (im->type & 0xFF00) ? "run-length" : "verbatim");
  std::printf("  size         %u x %u\n", im->xsize, im->ysize);
  std::printf("  channels     %u (dim %u)\n", im->zsize, im->dim);
  std::printf("  channel      %u byte%s\n", bpp, bpp == 1 ? "" : "s");
  std::printf("  samples      min %u  max %u\n", im->min, im->max);
  std::printf("  name         \"%s\"\n", im->name);
  int status = 0;
  if (stats) {
    std::vector<uint16_t> row(size_t(im->xsize) + 1);
    const char* names[] = {"red", "green", "blue", "alpha"};
    for (unsigned z = 0; z < im->zsize && z < 4 && !status; ++z) {
      unsigned lo = 65535, hi = 0;
      double sum = 0;
      for (unsigned y = 0; y < im->ysize; ++y) {
        if (getrow(im, row.data(), y, z) < im->xsize) {
          status = fail(file, "a row cannot be read");
          break;
        }
        for (unsigned x = 0; x < im->xsize; ++x) {
          lo = std::min<unsigned>(lo, row[x]);
          hi = std::max<unsigned>(hi, row[x]);
          sum += row[x];
        }
      }
      std::printf("  %-6s       min %u  max %u  mean %.3f\n", im->zsize == 1 ? "grey" : names[z], lo, hi,
                  sum / (double(im->xsize) * im->ysize));
    }
  }
  iclose(im);
  return status;
}

int writeSgiFromIff(ILimage* in, const std::string& out, bool runLength) {
  bool deep = in->bytes == 2;
  if (deep && ILsetbpp(in, 2) != 0) return failCode(out, flerrno);
  int32_t w = 0, h = 0;
  ILgetsize(in, &w, &h);
  unsigned channels = (in->type & ILT_ALPHA) ? 4 : 3;
  IMAGE* sgi = iopen(out.c_str(), "w", (runLength ? SGI_RLE : SGI_VERBATIM) | (deep ? 2 : 1), 3, unsigned(w),
                     unsigned(h), channels);
  if (!sgi) return fail(out, "cannot be created");
  std::vector<uint8_t> line(size_t(w) * 4 * (deep ? 2 : 1));
  std::vector<std::vector<uint16_t>> rows(channels, std::vector<uint16_t>(size_t(w)));
  int rc = 0;
  for (int32_t y = 0; y < h && !rc; ++y) {
    if ((rc = ILreadline(in, line.data(), nullptr)) != 0) break;
    for (int32_t x = 0; x < w; ++x)
      for (unsigned c = 0; c < channels; ++c) {
        // Memory pixels are blue, green, red, alpha; SGI channels red, green, blue, alpha.
        unsigned from = c < 3 ? 2 - c : 3;
        size_t at = (size_t(x) * 4 + from) * (deep ? 2 : 1);
        rows[c][size_t(x)] = deep ? uint16_t(line[at] | line[at + 1] << 8) : line[at];
      }
    for (unsigned c = 0; c < channels; ++c)
      if (putrow(sgi, rows[c].data(), unsigned(y), c) != w) rc = -1;
  }
  if (iclose(sgi) != 0 && !rc) rc = -1;
  if (rc > 0) return failCode(out, rc);
  return rc ? fail(out, "cannot be written") : 0;
}

int writeSgiFromMap(const TpixelMap& map, bool alpha, const std::string& out, bool runLength) {
  unsigned channels = alpha ? 4 : 3, w = unsigned(map.width()), h = unsigned(map.height());
  IMAGE* sgi = iopen(out.c_str(), "w", (runLength ? SGI_RLE : SGI_VERBATIM) | 1, 3, w, h, channels);
  if (!sgi) return fail(out, "cannot be created");
  std::vector<uint16_t> row(w);
  bool ok = true;
  for (unsigned c = 0; c < channels; ++c)
    for (unsigned y = 0; y < h; ++y) {
      for (unsigned x = 0; x < w; ++x) {
        const Tpixel32* p = map.pixelPointer(int(x), int(y));
        const auto& ch = p->fChannels;
        row[x] = c == 0 ? ch.fRed : c == 1 ? ch.fGreen : c == 2 ? ch.fBlue : ch.fAlpha;
      }
      ok = ok && putrow(sgi, row.data(), y, c) == int(w);
    }
  ok = iclose(sgi) == 0 && ok;
  return ok ? 0 : fail(out, "cannot be written");
}

}  // namespace kimg
