// kimg info: what each image's header says, and with --stats what its pixels hold.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/tiffimagefile.h"
#include "sgifiles.h"
#include "util.h"

namespace kimg {
namespace {

std::string valueText(const uint8_t* v, uint32_t n) {
  bool printable = true;
  for (uint32_t i = 0; i < n; ++i) printable = printable && std::isprint(v[i]);
  if (printable) {
    std::string text(1, '"');
    text.append(reinterpret_cast<const char*>(v), n);
    return text += '"';
  }
  std::string hex;
  char b[4];
  for (uint32_t i = 0; i < n && i < 32; ++i) {
    std::snprintf(b, sizeof b, "%02x", v[i]);
    hex += b;
  }
  return (n > 32 ? hex + "..." : hex) + " (" + std::to_string(n) + " bytes)";
}

void printHeader(TiffImageFile& file) {
  ILimage* im = file.image();
  char type[64];
  unsigned short w, h, num, den;
  file.getSize(w, h);
  file.getRatio(num, den);
  int32_t x = 0, y = 0;
  ILgetorigin(im, &x, &y);  // signed, where the class gives 16 bits
  unsigned bytes = file.bytesPerPixel();
  ILtypename(file.type(), type, sizeof type);
  std::printf("  size         %u x %u\n", w, h);
  std::printf("  type         %s (%u)\n", type, file.type());
  std::printf("  channel      %u byte%s%s\n", bytes, bytes == 1 ? "" : "s", bytes == 4 ? " (float)" : "");
  // The class folds compressor numbers it does not know into 0; the header's own number is shown.
  std::printf("  compression  %s (%u)\n", compressionName(im->compress).c_str(), im->compress);
  std::printf("  tiles        %d\n", file.pages());
  std::printf("  origin       %d, %d\n", x, y);
  std::printf("  pixel ratio  %u:%u\n", num, den);
  if (file.dpi() > 0.0f) std::printf("  dpi          %g\n", double(file.dpi()));
  else std::printf("  dpi          not stored\n");
  std::printf("  version      0x%05x\n", unsigned(file.version()));
  for (FLnode* n = im->fields.head; n; n = n->next) {
    auto* f = reinterpret_cast<ILfield*>(n);
    std::printf("  field %-6s %s\n", tagText(n->type).c_str(), valueText(f->value, f->length).c_str());
  }
}

struct Stat {
  double min = 1e300, max = -1e300, sum = 0;
  void add(double v) {
    min = std::min(min, v);
    max = std::max(max, v);
    sum += v;
  }
};

// Reads every line and prints minimum, maximum and mean per channel.
int printStats(ILimage* im, const std::string& file) {
  bool deep = im->bytes == 2;
  if (deep) ILsetbpp(im, 2);
  bool depth = im->type & ILT_DEPTH;
  std::vector<uint8_t> line(size_t(im->width) * 4 * (deep ? 2 : 1));
  std::vector<float> z(im->width);
  Stat channel[4], zs;
  for (uint32_t y = 0; y < im->height; ++y) {
    if (int rc = ILreadline(im, line.data(), depth ? z.data() : nullptr)) return failCode(file, rc);
    for (uint32_t x = 0; x < im->width; ++x) {
      for (int c = 0; c < 4; ++c) {
        size_t at = (size_t(x) * 4 + size_t(c)) * (deep ? 2 : 1);
        double v = deep ? double(line[at] | line[at + 1] << 8) : double(line[at]);
        channel[c].add(v);
      }
      if (depth) zs.add(double(z[x]));
    }
  }
  double count = double(im->width) * im->height;
  const char* names[] = {"blue", "green", "red", "alpha"};
  for (int c : {2, 1, 0, 3})
    std::printf("  %-6s       min %g  max %g  mean %.3f\n", names[c], channel[c].min, channel[c].max,
                channel[c].sum / count);
  if (depth) std::printf("  depth        min %g  max %g  mean %g\n", zs.min, zs.max, zs.sum / count);
  return 0;
}

int infoOne(const std::string& name, bool stats) {
  TiffImageFile file;
  if (!file.open(name.c_str(), "r")) return failCode(name, flerrno);
  ILimage* im = file.image();
  int status = 0;
  for (int index = 1;; ++index) {
    if (!ILgetheader(im)) {
      status = failCode(name, flerrno);
      break;
    }
    std::printf("%s", name.c_str());
    if (index > 1) std::printf(" (image %d)", index);
    std::printf("\n");
    printHeader(file);
    if (stats && (status = printStats(im, name)) != 0) break;
    if (ILnext(im) != 0) break;
  }
  return status;
}

}  // namespace

int info(const std::vector<std::string>& files, bool stats) {
  int status = 0;
  for (const std::string& f : files) status |= isSgi(f) ? infoSgi(f, stats) : infoOne(f, stats);
  return status;
}

}  // namespace kimg
