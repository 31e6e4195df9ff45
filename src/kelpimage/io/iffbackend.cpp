// IFF through the library's own IL functions: 8 and 16-bit pictures, grey or
// colour, with alpha (premultiplied, as renderers write it) and depth, the
// images of a file as its frames, and the header's origin, pixel ratio,
// resolution and fields. Lines are read and written from the top down, a
// band of tiles at a time; "Top Down" 0 writes them from the bottom up,
// holding the picture until its end, as the conversions of old did.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <vector>

#include "kelpimage/il/il.h"
#include "kelpimage/io/backend.h"
#include "kelpimage/io/samples.h"

namespace kelpio {
namespace {

std::string tagText(uint32_t tag) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) s += char(tag >> shift);
  return s;
}

// A pixel aspect as IFF's ratio num:den, a pixel's height to its width.
void ratioOf(double aspect, uint16_t& num, uint16_t& den) {
  num = den = 1;
  if (!(aspect > 0.0) || std::abs(aspect - 1.0) < 1e-6) return;
  double best = 1e9;
  for (int d = 1; d <= 1000; ++d) {
    double n = double(d) / aspect;
    int rounded = int(std::lround(n));
    if (rounded < 1 || rounded > 65535) continue;
    double off = std::abs(double(d) / rounded - aspect);
    if (off < best - 1e-12) {
      best = off;
      num = uint16_t(rounded);
      den = uint16_t(d);
    }
  }
}

class IffReader : public ReaderBackend {
 public:
  ~IffReader() override { shut(); }

  bool open(TinputStream& in, const TreadOptions&, TimageInfo& spec, std::string& why) override {
    fPath = in.path();
    if (fPath.empty()) return why = in.error(), false;
    int frames = 0;
    if (ILimage* counting = ILopen(fPath.c_str(), "r")) {
      for (frames = 1; ILnext(counting) == 0;) ++frames;
      ILclose(counting);
    }
    if (!openImage(0, spec, why)) return false;
    spec.frames = std::max(frames, 1);
    fFrames = spec.frames;
    return true;
  }

  bool seekFrame(int frame, TimageInfo& spec, std::string& why) override {
    if (!openImage(frame, spec, why)) return false;
    spec.frames = fFrames;
    return true;
  }

  bool readRows(int32_t y0, int32_t count, uint8_t* pixels, size_t rowBytes, float* depth, size_t depthStride,
                std::string& why) override {
    for (int32_t i = 0; i < count; ++i) {
      // Each line straight from the band the library assembled, not copied first.
      uint8_t* line = nullptr;
      float* zline = nullptr;
      if (int rc = ILgetline(fImage, pixels ? &line : nullptr, depth ? &zline : nullptr))
        return why = FLstrerror(rc), false;
      // A line that no tile of the file covered (missing or damaged tiles) is an error.
      if ((pixels && !line && fImage->bitmask != 0) || (depth && !zline && fDepth))
        return why = FLstrerror(FL_EFIT), false;
      if (pixels) toCaller(line ? line : fZeros.data(), pixels + size_t(i) * rowBytes);
      if (depth && fDepth) {
        auto* z = reinterpret_cast<float*>(reinterpret_cast<uint8_t*>(depth) + size_t(i) * depthStride);
        std::memcpy(z, zline, size_t(fSpec.width) * sizeof(float));
      }
    }
    (void)y0;
    return true;
  }

 private:
  void shut() {
    if (fImage) ILclose(fImage);
    fImage = nullptr;
  }

  bool openImage(int frame, TimageInfo& spec, std::string& why) {
    shut();
    fImage = ILopen(fPath.c_str(), "r");
    if (!fImage) return why = FLstrerror(flerrno), false;
    for (int i = 0; i < frame; ++i)
      if (ILnext(fImage) != 0) return why = "has no image " + std::to_string(frame + 1), false;
    if (!ILgetheader(fImage)) {
      // A header refused for its size says the size it gives.
      why = FLstrerror(flerrno);
      if (fImage->ictl & ILC_REFUSED)
        why += " (" + std::to_string(fImage->width) + " x " + std::to_string(fImage->height) + ")";
      return false;
    }
    if (fImage->bytes == 4) return why = "IFF pictures of float samples are not read here", false;
    fBytes = fImage->bytes == 2 ? 2 : 1;
    if (fBytes == 2 && ILsetbpp(fImage, 2) != 0) return why = FLstrerror(flerrno), false;
    ILctrl(fImage, ILC_TOPDOWN, 1);
    spec = TimageInfo();
    spec.width = int32_t(fImage->width);
    spec.height = int32_t(fImage->height);
    fColour = fImage->type & ILT_COLOR;
    spec.colorChannels = fColour ? 3 : 1;
    spec.alpha = fImage->type & ILT_ALPHA;
    spec.association = spec.alpha ? Tassociation::kPremultiplied : Tassociation::kStraight;
    fDepth = fImage->type & ILT_DEPTH;
    spec.depth = fDepth;
    spec.sampleType = fBytes == 2 ? TsampleType::kUint16 : TsampleType::kUint8;
    spec.bits = fBytes * 8;
    spec.x = fImage->orgx;
    spec.y = fImage->orgy;
    if (fImage->prnum > 0 && fImage->prden > 0) spec.pixelAspect = double(fImage->prden) / double(fImage->prnum);
    spec.dpi = fImage->dpi > 0.0f ? fImage->dpi : 0.0;
    spec.tileWidth = int32_t(fImage->twidth);
    spec.tileHeight = int32_t(fImage->theight);
    char name[IL_COMPNAMELEN] = {};
    ILcodecfn pack = nullptr;
    ILfindcompressor(fImage->compress, name, &pack, nullptr);
    spec.compression = pack ? name : "unknown";
    char type[64];
    ILtypename(fImage->type, type, sizeof type);
    char version[16];
    std::snprintf(version, sizeof version, "0x%05x", unsigned(fImage->version));
    spec.details = {{"type", std::string(type) + " (" + std::to_string(fImage->type) + ")"},
                    {"tiles", std::to_string(fImage->pages)},
                    {"pixel ratio", std::to_string(fImage->prnum) + ":" + std::to_string(fImage->prden)},
                    {"version", version}};
    for (FLnode* n = fImage->fields.head; n; n = n->next) {
      if (n->type == IL_DPI) continue;
      auto* f = reinterpret_cast<ILfield*>(n);
      spec.fields.emplace_back(tagText(n->type), std::string(reinterpret_cast<const char*>(f->value), f->length));
    }
    fSpec = spec;
    fZeros.assign(size_t(spec.width) * 4 * size_t(fBytes), 0);
    return true;
  }

  // One line of blue, green, red, alpha into the caller's colour and alpha.
  void toCaller(const uint8_t* p, uint8_t* out) const {
    const int channels = fSpec.channels();
    const size_t width = size_t(fSpec.width);
    if (fBytes == 1) {
      if (fColour && channels == 4) {
        kelpio::swapRedBlue(p, out, width);
      } else if (fColour) {
        for (size_t x = 0; x < width; ++x, p += 4, out += 3) out[0] = p[2], out[1] = p[1], out[2] = p[0];
      } else {
        for (size_t x = 0; x < width; ++x, p += 4) {
          *out++ = p[1];  // grey lies in green
          if (channels == 2) *out++ = p[3];
        }
      }
      return;
    }
    const auto* w = reinterpret_cast<const uint16_t*>(p);
    auto* o = reinterpret_cast<uint16_t*>(out);
    for (size_t x = 0; x < width; ++x, w += 4) {
      if (fColour)
        *o++ = w[2], *o++ = w[1], *o++ = w[0];
      else
        *o++ = w[1];
      if (fSpec.alpha) *o++ = w[3];
    }
  }

  std::string fPath;
  ILimage* fImage = nullptr;
  TimageInfo fSpec;
  int fBytes = 1, fFrames = 1;
  bool fColour = true, fDepth = false;
  std::vector<uint8_t> fZeros;  // the colour of a picture that has none
};

class IffWriter : public WriterBackend {
 public:
  ~IffWriter() override {
    if (fImage) ILclose(fImage);
  }

  bool open(ToutputStream& out, const TimageInfo& spec, const TwriteOptions& options, std::string& why) override {
    const std::string& path = out.path();
    if (path.empty()) return why = out.error(), false;
    fImage = ILopen(path.c_str(), "w");
    if (!fImage) return why = FLstrerror(flerrno), false;
    fOptions = options;
    return start(spec, why);
  }

  bool writeRows(int32_t y0, int32_t count, const uint8_t* pixels, size_t rowBytes, const float* depth,
                 size_t depthStride, std::string& why) override {
    for (int32_t i = 0; i < count; ++i) {
      const uint8_t* row = pixels + size_t(i) * rowBytes;
      const float* z =
          depth ? reinterpret_cast<const float*>(reinterpret_cast<const uint8_t*>(depth) + size_t(i) * depthStride)
                : nullptr;
      if (fTopDown) {
        toLine(row, fLine.data());
        if (int rc = ILwriteline(fImage, fLine.data(), z)) return why = FLstrerror(rc), false;
      } else {
        // Held, to go out from the bottom up at the end.
        size_t y = size_t(y0 + i);
        toLine(row, fHeld.data() + y * fLine.size());
        if (z) std::memcpy(fHeldDepth.data() + y * size_t(fSpec.width), z, size_t(fSpec.width) * sizeof(float));
      }
    }
    return true;
  }

  bool nextFrame(const TimageInfo& spec, std::string& why) override {
    if (!flushHeld(why)) return false;
    if (int rc = ILnext(fImage)) return why = FLstrerror(rc), false;
    return start(spec, why);
  }

  bool close(std::string& why) override {
    bool ok = flushHeld(why);
    int rc = ILclose(fImage);
    fImage = nullptr;
    if (ok && rc) why = FLstrerror(rc);
    return ok && rc == 0;
  }

 private:
  bool start(const TimageInfo& spec, std::string& why) {
    fSpec = spec;
    fBytes = spec.sampleType == TsampleType::kUint16 ? 2 : 1;
    fTopDown = fOptions.get("Top Down", 1) != 0;
    uint32_t type =
        (spec.colorChannels == 3 ? ILT_COLOR : ILT_BLACK) | (spec.alpha ? ILT_ALPHA : 0) | (spec.depth ? ILT_DEPTH : 0);
    uint16_t num = 1, den = 1;
    ratioOf(spec.pixelAspect, num, den);
    int rc = ILsetsize(fImage, spec.width, spec.height);
    if (!rc) rc = ILsettype(fImage, int32_t(type));
    if (!rc) rc = ILsetbpp(fImage, fBytes);
    if (!rc) rc = ILsetcompress(fImage, compressionFor(spec));
    if (!rc) rc = ILsetorigin(fImage, spec.x, spec.y);
    if (!rc) rc = ILsetratio(fImage, num, den);
    int tw = int(fOptions.get("Tile Width", 0)), th = int(fOptions.get("Tile Height", 0));
    if (!rc && (tw > 0 || th > 0)) rc = ILsetpagesize(fImage, tw > 0 ? tw : th, th > 0 ? th : tw);
    for (auto it = spec.fields.begin(); it != spec.fields.end() && !rc; ++it) {
      if (it->first.size() != 4) continue;
      char name[5] = {};
      it->first.copy(name, 4);
      uint32_t tag = FLmaketag(name);
      rc = ILsetfield(fImage, tag, uint32_t(it->second.size()), reinterpret_cast<const uint8_t*>(it->second.data()));
    }
    if (rc) return why = FLstrerror(rc), false;
    fImage->dpi = spec.dpi > 0.0 ? float(spec.dpi) : 72.0f;
    ILctrl(fImage, ILC_TOPDOWN, fTopDown ? 1 : 0);
    fLine.assign(size_t(spec.width) * 4 * size_t(fBytes), 0xFF);
    if (!fTopDown) {
      fHeld.assign(fLine.size() * size_t(spec.height), 0xFF);
      fHeldDepth.assign(spec.depth ? size_t(spec.width) * size_t(spec.height) : 0, 0.0f);
    }
    return true;
  }

  // The option's, else the one the description names (a copy keeps its file's), else RLE.
  uint32_t compressionFor(const TimageInfo& spec) const {
    static const char* const kNames[] = {"none", "rle", "qrl", "qr4"};
    uint32_t chosen = 1;
    for (uint32_t n = 0; n < 4; ++n)
      if (spec.compression == kNames[n]) chosen = n;
    return uint32_t(fOptions.get("Compression", chosen));
  }

  bool flushHeld(std::string& why) {
    if (fTopDown || fHeld.empty()) return true;
    for (int32_t y = fSpec.height - 1; y >= 0; --y) {
      const float* z = fSpec.depth ? fHeldDepth.data() + size_t(y) * size_t(fSpec.width) : nullptr;
      if (int rc = ILwriteline(fImage, fHeld.data() + size_t(y) * fLine.size(), z)) return why = FLstrerror(rc), false;
    }
    fHeld.clear();
    fHeldDepth.clear();
    return true;
  }

  // The caller's colour and alpha to a line of blue, green, red, alpha.
  void toLine(const uint8_t* in, uint8_t* line) const {
    const size_t width = size_t(fSpec.width);
    const bool colour = fSpec.colorChannels == 3;
    if (fBytes == 1 && colour && fSpec.alpha) return kelpio::swapRedBlue(in, line, width);
    if (fBytes == 1) {
      for (size_t x = 0; x < width; ++x, line += 4) {
        uint8_t r = *in++, g = colour ? *in++ : r, b = colour ? *in++ : r;
        line[0] = b, line[1] = g, line[2] = r;
        line[3] = fSpec.alpha ? *in++ : 255;
      }
      return;
    }
    const auto* p = reinterpret_cast<const uint16_t*>(in);
    auto* l = reinterpret_cast<uint16_t*>(line);
    for (size_t x = 0; x < width; ++x, l += 4) {
      uint16_t r = *p++, g = colour ? *p++ : r, b = colour ? *p++ : r;
      l[0] = b, l[1] = g, l[2] = r;
      l[3] = fSpec.alpha ? *p++ : 65535;
    }
  }

  ILimage* fImage = nullptr;
  TwriteOptions fOptions;
  TimageInfo fSpec;
  int fBytes = 1;
  bool fTopDown = false;
  std::vector<uint8_t> fLine, fHeld;
  std::vector<float> fHeldDepth;
};

}  // namespace

std::unique_ptr<ReaderBackend> iffReader() { return std::make_unique<IffReader>(); }
std::unique_ptr<WriterBackend> iffWriter() { return std::make_unique<IffWriter>(); }

}  // namespace kelpio
