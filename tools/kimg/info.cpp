// kimg info: what each image's header says, and with --stats what its pixels hold.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "files.h"
#include "lines.h"
#include "movie.h"
#include "psd.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/sgi/sgi.h"
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

// What the header holds, read from the handle itself, so that a header
// the library refuses (a size out of range) is still shown as it stands.
void printHeader(ILimage* im) {
  char type[64];
  ILtypename(im->type, type, sizeof type);
  unsigned bytes = im->bytes;
  std::printf("  size         %u x %u\n", im->width, im->height);
  std::printf("  type         %s (%u)\n", type, im->type);
  std::printf("  channel      %u byte%s%s\n", bytes, bytes == 1 ? "" : "s", bytes == 4 ? " (float)" : "");
  std::printf("  compression  %s (%u)\n", compressionName(im->compress).c_str(), im->compress);
  std::printf("  tiles        %u\n", unsigned(im->pages));
  std::printf("  origin       %d, %d\n", int(im->orgx), int(im->orgy));
  std::printf("  pixel ratio  %u:%u\n", unsigned(im->prnum), unsigned(im->prden));
  if (im->dpi > 0.0f) std::printf("  dpi          %g\n", double(im->dpi));
  else std::printf("  dpi          not stored\n");
  std::printf("  version      0x%05x\n", unsigned(im->version));
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

// Minimum, maximum and mean of each channel of a picture's lines.
int printLineStats(Lines& lines, const std::string& file) {
  std::vector<uint8_t> line(size_t(lines.width) * 4 * size_t(lines.bytes));
  Stat channel[4];
  for (int y = 0; y < lines.height; ++y) {
    if (!lines.next(line.data())) return fail(file, lines.error);
    for (int x = 0; x < lines.width; ++x)
      for (int c = 0; c < 4; ++c) {
        size_t at = (size_t(x) * 4 + size_t(c)) * size_t(lines.bytes);
        channel[c].add(lines.bytes == 2 ? double(line[at] | line[at + 1] << 8) : double(line[at]));
      }
  }
  double count = double(lines.width) * lines.height;
  const char* names[] = {"blue", "green", "red", "alpha"};
  for (int c : {2, 1, 0, 3})
    if (c < 3 || lines.alpha)
      std::printf("  %-6s       min %g  max %g  mean %.3f\n", names[c], channel[c].min, channel[c].max,
                  channel[c].sum / count);
  return 0;
}

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

int infoSgi(const std::string& name, const std::string& path, bool stats) {
  IMAGE* im = iopen(path.c_str(), "r");
  if (!im) return fail(name, takeReport("cannot be read as an SGI picture"));
  unsigned bpp = im->type & 0xFF;
  std::printf("%s\n", name.c_str());
  std::printf("  format       SGI, %s\n", (im->type & 0xFF00) ? "run-length" : "verbatim");
  std::printf("  size         %u x %u\n", im->xsize, im->ysize);
  std::printf("  channels     %u (dim %u)\n", im->zsize, im->dim);
  std::printf("  channel      %u byte%s\n", bpp, bpp == 1 ? "" : "s");
  std::printf("  samples      min %u  max %u\n", im->min, im->max);
  std::printf("  name         \"%.79s\"\n", im->name);
  int status = 0;
  if (stats) {
    std::vector<uint16_t> row(size_t(im->xsize) + 1);
    const char* names[] = {"red", "green", "blue", "alpha"};
    for (unsigned z = 0; z < im->zsize && z < 4 && !status; ++z) {
      unsigned lo = 65535, hi = 0;
      double sum = 0;
      for (unsigned y = 0; y < im->ysize && !status; ++y) {
        if (getrow(im, row.data(), y, z) != int(im->xsize)) {
          status = fail(name, takeReport("a row cannot be read"));
          break;
        }
        for (unsigned x = 0; x < im->xsize; ++x) {
          lo = std::min<unsigned>(lo, row[x]);
          hi = std::max<unsigned>(hi, row[x]);
          sum += row[x];
        }
      }
      if (!status)
        std::printf("  %-6s       min %u  max %u  mean %.3f\n", im->zsize == 1 ? "grey" : names[z], lo, hi,
                    sum / (double(im->xsize) * im->ysize));
    }
  }
  iclose(im);
  return status;
}

int infoIff(const std::string& name, const std::string& path, bool stats) {
  ILimage* im = ILopen(path.c_str(), "r");
  if (!im) return failCode(name, flerrno);
  int status = 0;
  for (int index = 1;; ++index) {
    bool read = ILgetheader(im) != nullptr;
    int code = flerrno;
    if (!read && !(im->ictl & ILC_REFUSED)) {
      status = failCode(name, code);
      break;
    }
    std::printf("%s", name.c_str());
    if (index > 1) std::printf(" (image %d)", index);
    std::printf("\n");
    printHeader(im);
    if (!read) {
      status = failCode(name, code);
      break;
    }
    if (stats && (status = printStats(im, name)) != 0) break;
    if (ILnext(im) != 0) break;
  }
  ILclose(im);
  return status;
}

// A picture of a plug-in format: what its plug-in says of it, and with
// --stats what its pixels hold at 8 bits a channel.
int infoPlugin(const std::string& name, const std::string& path, const std::string& key, bool stats) {
  PxfHandle* handle = openPluginPicture(key, path);
  if (!handle || !handle->image) {
    if (handle) PXF_close(handle);
    return fail(name, std::string("cannot be read as ") + key + ": " + PXF_last_error());
  }
  const PxfImageData& im = *handle->image;
  const char* kinds[] = {"", "integers", "floats", "doubles"};
  std::printf("%s\n", name.c_str());
  std::printf("  format       %s (%s)\n", handle->format->name, key.c_str());
  std::printf("  size         %d x %d\n", im.width(), im.height());
  std::printf("  channels     %d colour, %d matte, %d depth\n", im.colorChannels, im.matteChannels, im.depthChannels);
  // What the file holds, which the plug-in may hand over widened.
  const char* stored = im.storedKind == PXF_STORED_HALF ? "halves" : im.storedKind == PXF_STORED_FLOAT ? "floats" : nullptr;
  int bits = im.storedBits > 0 ? im.storedBits : im.colorBits;
  if (stored) std::printf("  samples      %d-bit %s\n", bits, stored);
  else std::printf("  samples      %d-bit %s\n", bits, im.colorKind >= 1 && im.colorKind <= 3 ? kinds[im.colorKind] : "?");
  if (im.compression) std::printf("  compression  %s\n", im.compression);
  if (im.matteChannels > 0)
    std::printf("  alpha        %s\n", im.association == PXF_PREMULTIPLIED ? "premultiplied" : "straight");
  if (im.fullWidth > 0 && (im.fullWidth != im.width() || im.fullHeight != im.height() || im.originX || im.originY))
    std::printf("  window       %d x %d at %d, %d of %d x %d\n", im.width(), im.height(), im.originX, im.originY,
                im.fullWidth, im.fullHeight);
  if (im.pixelAspect != 1.0f) std::printf("  pixel aspect %g\n", double(im.pixelAspect));
  std::printf("  frames       %d\n", handle->frameCount);
  if (im.dpi > 0.0f) std::printf("  dpi          %g\n", double(im.dpi));
  PXF_close(handle);
  if (!stats) return 0;
  TimageFile file;
  TpixelMap map;
  if (file.identifyAndOpen(Tstring(path.c_str())) != 0 || file.readPixelMap(map) != 0)
    return fail(name, takeReport("the pixels cannot be read"));
  const char* names[] = {"blue", "green", "red", "alpha"};
  for (int c : {2, 1, 0, 3}) {
    Stat st;
    for (int y = 0; y < map.height(); ++y)
      for (int x = 0; x < map.width(); ++x) st.add(double((map.pixelPointer(x, y)->fValue >> (8 * c)) & 255));
    std::printf("  %-6s       min %g  max %g  mean %.3f\n", names[c], st.min, st.max,
                st.sum / (double(map.width()) * map.height()));
  }
  return 0;
}

// A Photoshop document: its header and layer count, and with --stats what
// its flattened image holds (in RGB, as kimg converts it).
int infoPsd(const std::string& name, const std::string& path, bool stats) {
  zkPhotoshop::TpsdFile doc;
  if (int status = psdOpen(path, doc)) return status;
  if (!doc.readAllLayerRecordInformation() && !doc.lastReason().isEmpty()) return fail(name, doc.lastReason().str());
  static const char* const modes[] = {"bitmap", "grey", "indexed", "RGB", "CMYK", "?", "?", "multichannel",
                                      "duotone", "Lab"};
  std::printf("%s\n", name.c_str());
  std::printf("  format       Photoshop (psd)\n");
  std::printf("  size         %u x %u\n", doc.fImageWidth, doc.fImageHeight);
  std::printf("  colour       %s, %u channels%s\n", doc.fColorMode < 10 ? modes[doc.fColorMode] : "?", doc.fChannelCount,
              doc.fMergedTransparency ? " (with transparency)" : "");
  std::printf("  samples      %u-bit integers\n", doc.fDepth);
  std::printf("  layers       %zu\n", doc.fLayers.size());
  if (!stats) return 0;
  std::string why;
  std::unique_ptr<Lines> lines = psdLines(path, PsdPart{}, false, why);
  if (!lines) return fail(name, why);
  return printLineStats(*lines, name);
}

bool isSgi(const std::string& path) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  unsigned char b[2] = {};
  bool two = f && std::fread(b, 1, 2, f) == 2;
  if (f) std::fclose(f);
  return two && ((b[0] == 0x01 && b[1] == 0xDA) || (b[0] == 0xDA && b[1] == 0x01));
}

}  // namespace

int info(const std::vector<std::string>& files, bool stats) {
  int status = 0;
  for (const std::string& name : files) {
    Input input(name);
    int one;
    std::string key = input.error().empty() ? TimageFile().getImageType(Tstring(input.path().c_str())).str() : "";
    takeReport("");
    if (!input.error().empty()) one = fail(name, input.error());
    else if (isSgi(input.path())) one = infoSgi(name, input.path(), stats);
    else if (isAvi(input.path())) one = infoMovie(name, input.path());
    else if (key.empty() || key == "kelp") one = infoIff(name, input.path(), stats);
    else if (key == "psd") one = infoPsd(name, input.path(), stats);
    else one = infoPlugin(name, input.path(), key, stats);
    status = status ? status : one;
  }
  return status;
}

}  // namespace kimg
