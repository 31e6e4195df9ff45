// Conversion out of IFF: a written IFF file becomes the format a caller
// asked for. Plug-in formats get its lines through their plug-in at the
// format's nearest sample size, the colour's bytes as they are; GIF and
// Photoshop documents go through the library's writers. Outputs are written
// beside their target under a temporary name and renamed into place when
// complete; a multi-frame output stays open between calls until it is
// finished.
#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelpimage/base/tatomicfile.h"
#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/convert/conversion.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/il/il.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/io/timagewriter.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/plugin/pxfinternal.h"

using kelpconvert::report;

namespace {

// An output of ifftoany, open between the frames of a format of several:
// a plug-in's handle on a file under a temporary name beside its target,
// or one of the library's writers.
struct ConversionOutput {
  PxfFormat* format = nullptr;
  PxfHandle* handle = nullptr;
  int frame = 0;
  TatomicFile file;
  std::unique_ptr<TimageWriter> writer;
};

int finishOutput(const std::string& target, ConversionOutput& out);
void abandonOutput(ConversionOutput& out);

// Outputs by target. The map lives to the end of the process, and outputs
// still open then are completed, so that no frame written is lost. Threads
// converting to different targets share it: the lock guards the map, and a
// record belongs to the one thread writing its target.
struct Outputs {
  std::mutex lock;
  std::map<std::string, ConversionOutput> records;
  ~Outputs() {
    for (auto& [target, record] : records) finishOutput(target, record);
  }
};
Outputs& outputs() {
  static Outputs all;
  return all;
}

// The format's nearest colour depth to `bits`: deeper if it has one, else shallower.
int32_t outputBits(const PxfFormat* format, int32_t bits) {
  uint32_t mask = format->depths;
  if (mask & (1u << (bits - 1))) return bits;
  if (mask >= (1u << (bits - 1))) {
    while (bits < 32 && !(mask & (1u << (bits - 1)))) ++bits;
    return bits;
  }
  while (bits > 1 && !(mask & (1u << (bits - 1)))) --bits;
  return (mask & (1u << (bits - 1))) ? bits : 0;
}

void putSample(void* buffer, int32_t x, int32_t bytes, uint32_t v) {
  if (bytes == 1)
    static_cast<uint8_t*>(buffer)[x] = uint8_t(v);
  else if (bytes == 2)
    static_cast<uint16_t*>(buffer)[x] = uint16_t(v);
  else
    static_cast<uint32_t*>(buffer)[x] = v;
}

struct Spread {
  int32_t inBytes, inBits, outBits, outBytes;
  int colors;  // 3, 1 (grey) or 0
  bool matte, depth;
  bool floatDepth;  // the IFF values as they are
  bool clip;
  float low, high;
};

// One line of blue, green, red, alpha samples into the channel buffers.
void spreadLine(const Spread& s, const uint8_t* line, const float* z, void* const* ch, int32_t width) {
  auto sample = [&](int32_t x, int c) -> uint32_t {
    const uint8_t* p = line + (size_t(x) * 4 + size_t(c)) * size_t(s.inBytes);
    uint32_t v = s.inBytes == 2 ? uint32_t(p[0] | p[1] << 8) : p[0];
    int shift = s.outBits - s.inBits;
    return shift >= 0 ? v << shift : v >> -shift;
  };
  int order[3] = {2, 1, 0};  // red, green, blue from memory's blue, green, red
  if (s.colors == 1) order[0] = 1;
  for (int32_t x = 0; x < width; ++x) {
    for (int c = 0; c < s.colors; ++c) putSample(ch[c], x, s.outBytes, sample(x, order[c]));
    if (s.matte) putSample(ch[s.colors], x, s.outBytes, sample(x, 3));
    if (s.depth && s.floatDepth) {
      float v = z ? z[x] : 0.0f;
      std::memcpy(static_cast<uint8_t*>(ch[s.colors + (s.matte ? 1 : 0)]) + size_t(x) * 4, &v, 4);
    } else if (s.depth) {
      float v = z ? z[x] : 0.0f;
      uint32_t out = 0;
      if (v != 0.0f) {
        double d = -1.0 / double(v), t;
        if (s.clip)
          t = std::clamp((double(s.high) - d) / double(s.high - s.low), 0.0, 1.0) * 2147483648.0;
        else
          t = 2147483648.0 - (d - 1.0);
        t = std::clamp(t, 0.0, 2147483648.0);
        out = t >= 2147483648.0 ? 0x80000000u : uint32_t(int32_t(t));
      }
      putSample(ch[s.colors + (s.matte ? 1 : 0)], x, 4, out);
    }
  }
}

// A clipping range stored after the tile group, if any.
bool readClipRange(ILimage* im, float& low, float& high) {
  FLendrgroup(im);
  uint32_t tag = 0, size = 0;
  bool found = false;
  if (FLbgnget(im, &tag, &size) == 0 && tag == FLmaketag("CLPZ") && size >= 8) {
    uint8_t b[8];
    if (FLget(im, b, 8) == 8) {
      std::memcpy(&low, b, 4);
      std::memcpy(&high, b + 4, 4);
      found = true;
    }
  }
  FLendget(im);
  return found;
}

struct ClosesImage {
  ILimage* im;
  ~ClosesImage() {
    if (im) ILclose(im);
  }
};

ConversionOutput& conversionOutput(const std::string& target);
bool openOutputFrame(const std::string& target, ConversionOutput& out, PxfFileInfo& info);

// What an IFF picture becomes in a plug-in's format: the record the plug-in
// is handed, how its lines are spread into channels, and their order.
struct OutPlan {
  PxfImageData image;
  Spread spread{};
  int32_t width = 0, height = 0, bytes = 1;
  bool topdown = false, invert = false;
};

// Channels, sample bits, depth and orientation for `format`; false after a report.
bool planOutput(ILimage* in, const PxfFormat* format, const std::string& input, const std::string& output,
                const char* key, OutPlan& plan) {
  int32_t num = 1, den = 1;
  ILgetsize(in, &plan.width, &plan.height);
  ILgetratio(in, &num, &den);
  PxfImageData& image = plan.image;
  image.aspectRatio = 1.0f;
  if (num != den && den != 0 && plan.height != 0)
    image.aspectRatio = float(den * plan.width) / float(num * plan.height);
  image.aspectWidth = plan.width;
  image.aspectHeight = plan.height;
  image.dpi = in->dpi >= 1.0f ? in->dpi : 0.0f;
  // IFF's ratio num:den is a pixel's height to its width; renderers write
  // premultiplied colour.
  if (num > 0 && den > 0) image.pixelAspect = float(den) / float(num);
  image.association = PXF_PREMULTIPLIED;
  plan.bytes = ILgetbpp(in);
  if (plan.bytes != 1 && plan.bytes != 2)
    report(input + ": " + std::to_string(plan.bytes) + " bytes a channel are read as 1");
  if (plan.bytes == 2) ILctrl(in, ILC_DEEP, 1);
  int32_t bits = outputBits(format, plan.bytes * 8);
  if (bits == 0) return report(output + ": the " + key + " plug-in writes no sample size"), false;
  const unsigned type = unsigned(ILgettype(in));
  const int colors = (type & ILT_COLOR) ? 3 : (type & ILT_BLACK) ? 1 : 0;
  bool depth = type & ILT_DEPTH;
  if (depth && format->depth == 0) {
    report(output + ": the " + key + " format holds no depth: it is left out");
    depth = false;
  }
  const bool floatDepth = format->flags & PXF_FLOAT_DEPTH;
  if (depth && !floatDepth && !(format->depthWidths & 0xC0000000u)) {
    report(output + ": the " + key + " format holds no depth as integers: it is left out");
    depth = false;
  }
  const bool matte = (type & ILT_ALPHA) && format->matte != 0;
  image.windowLeft = image.window2[0] = 0;
  image.windowRight = image.window2[1] = plan.width - 1;
  image.windowBottom = image.window2[2] = 0;
  image.windowTop = image.window2[3] = plan.height - 1;
  image.dataKind = FMT_def_image_data();
  image.colorChannels = colors;
  image.colorBits = image.matteBits = bits;
  image.matteChannels = matte ? 1 : 0;
  image.depthChannels = depth ? 1 : 0;
  image.depthBits = floatDepth ? 32 : 31;
  image.depthKind = floatDepth ? PXF_FLOAT : PXF_INTEGER;
  image.indexChannels = 0;
  image.indexBits = 16;
  plan.topdown = (in->ictl & ILC_TOPDOWN) != 0;
  const int32_t wanted = plan.topdown ? PXF_TOP_DOWN : PXF_BOTTOM_UP;
  plan.invert = !(format->orientations & uint32_t(wanted));
  image.orientation = plan.invert ? (wanted == PXF_TOP_DOWN ? PXF_BOTTOM_UP : PXF_TOP_DOWN) : wanted;
  const int32_t outBytes = bits <= 8 ? 1 : ((bits - 9) >> 3) + 2;
  plan.spread = Spread{plan.bytes == 2 ? 2 : 1,
                       plan.bytes == 2 ? 16 : 8,
                       bits,
                       outBytes,
                       colors,
                       matte,
                       depth,
                       floatDepth,
                       false,
                       0.0f,
                       0.0f};
  return true;
}

// Every line of the picture into the plug-in; 0, or -1 after a report.
int writeLines(ILimage* in, ConversionOutput& record, OutPlan& plan, PxfChannels* channels, const std::string& input,
               const std::string& output, const char* key) {
  Spread& spread = plan.spread;
  // Integer depth is scaled by the clipping range stored after the pixels,
  // so it needs the whole picture read first; float depth goes line by line.
  const bool whole = plan.invert || (spread.depth && !spread.floatDepth);
  const size_t lineBytes = size_t(plan.width) * size_t(plan.bytes == 2 ? 2 : 1) * 4;
  std::vector<uint8_t> pixels(lineBytes * (whole ? size_t(plan.height) : 1));
  std::vector<float> zs(spread.depth ? size_t(plan.width) * (whole ? size_t(plan.height) : 1) : 0);
  if (whole) {
    if (ILload(in, pixels.data(), spread.depth ? zs.data() : nullptr) != 0)
      return report(input + ": " + FLstrerror(flerrno)), -1;
    if (spread.depth && !spread.floatDepth) spread.clip = readClipRange(in, spread.low, spread.high);
  }
  for (int32_t i = 0; i < plan.height; ++i) {
    const int32_t row = plan.invert ? plan.height - 1 - i : i;
    const uint8_t* line = pixels.data();
    const float* z = spread.depth ? zs.data() : nullptr;
    if (whole) {
      line += size_t(row) * lineBytes;
      if (spread.depth) z = zs.data() + size_t(row) * size_t(plan.width);
    } else if (int code = ILreadline(in, pixels.data(), spread.depth ? zs.data() : nullptr)) {
      return report(input + ": " + FLstrerror(code)), -1;
    }
    spreadLine(spread, line, z, channels->buffers, plan.width);
    int written = PXF_scan_write(record.handle, plan.topdown ? plan.height - row - 1 : row, channels);
    if (written == PXF_ENOSCAN) return report(output + ": the " + key + " plug-in cannot write by lines"), -1;
    if (written != 0) return report(withReason(output + ": cannot be written")), -1;
  }
  return 0;
}

int convertOut(const char* input, const char* output, const char* key) {
  ILimage* in = ILopen(input, "r");
  ClosesImage closes{in};
  if (!in || !ILgetheader(in)) {
    report(std::string(input) + ": " + FLstrerror(flerrno));
    return -1;
  }
  ConversionOutput& record = conversionOutput(output);
  if (!record.format) {
    loadAllPXFPlugins();
    record.format = PXF_find(key);
    if (!record.format) return -1;
  }
  PxfFormat* format = record.format;
  std::vector<PxfCapSetting*> settings = kelpconvert::outputSettings(format, in->dpi);
  struct SettingsGuard {
    std::vector<PxfCapSetting*>& s;
    ~SettingsGuard() {
      for (PxfCapSetting* p : s) delete[] p;
    }
  } settingsGuard{settings};
  OutPlan plan;
  if (!planOutput(in, format, input, output, key, plan)) return -1;
  std::string extension = output;
  if (size_t dot = extension.rfind('.'); dot != std::string::npos) extension = extension.substr(dot);
  PxfFileInfo info;
  PXF_info_init(&info);
  info.key = key;
  info.extension = extension.c_str();
  info.settings = settings.data();
  info.image = &plan.image;
  bool adding = record.handle != nullptr;
  if (!openOutputFrame(output, record, info)) {
    report(withReason(std::string(output) + (adding ? ": a frame cannot be added" : ": cannot be written")));
    return -1;
  }
  PxfImageData& opened = *record.handle->image;
  plan.image.colorChannels = std::max(plan.image.colorChannels, opened.colorChannels);
  plan.image.matteChannels = std::max(plan.image.matteChannels, opened.matteChannels);
  plan.image.depthChannels = std::max(plan.image.depthChannels, opened.depthChannels);
  plan.spread.colors = std::min(plan.spread.colors, plan.image.colorChannels);
  PxfChannels* channels = PXF_chan_alloc(&plan.image, plan.width, key, nullptr);
  int rc = channels ? writeLines(in, record, plan, channels, input, output, key) : (report("out of memory"), -1);
  PXF_chan_free(channels);
  if (rc != 0) {
    abandonOutput(record);
    return -1;
  }
  if (!(format->flags & PXF_MULTIFRAME) && finishOutput(output, record) != 0) return -1;
  return 0;
}

// GIF and Photoshop documents: the library's writer, the colour's bytes as
// they are, a frame a call for a format of several.
int throughWriter(const char* input, const char* output, const char* key) {
  TimageReader in;
  if (!in.open(input, TreadOptions{"kelp", false, {}, {}, -1})) {
    report(in.error());
    return -1;
  }
  ConversionOutput& record = conversionOutput(output);
  TimageInfo spec = in.spec();
  spec.depth = false;
  bool adding = record.writer != nullptr;
  if (!adding) record.writer = std::make_unique<TimageWriter>();
  TimageWriter& out = *record.writer;
  if (adding ? !out.nextFrame(spec) : !out.create(output, spec, {}, key)) {
    report(out.error());
    abandonOutput(record);
    return -1;
  }
  const TimageInfo& file = out.spec();
  const Tassociation asIs = file.alpha ? file.association : Tassociation::kStraight;
  std::vector<uint8_t> rows(in.spec().rowBytes(file.sampleType) * size_t(in.spec().height));
  if (!in.readImage(rows.data(), file.sampleType, 0, asIs)) {
    report(in.error());
    abandonOutput(record);
    return -1;
  }
  if (!out.writeImage(rows.data(), file.sampleType, 0, asIs)) {
    report(out.error());
    abandonOutput(record);
    return -1;
  }
  if (!out.format().frames) return finishOutput(output, record);
  return 0;
}

ConversionOutput& conversionOutput(const std::string& target) {
  std::lock_guard<std::mutex> hold(outputs().lock);
  return outputs().records[target];
}

// Ends an open output: complete, it takes the target's place; otherwise the
// temporary file goes and the target stays as it was. 0 or -1.
int finishOutput(const std::string& target, ConversionOutput& out) {
  if (out.writer) {
    bool ok = out.writer->close();
    if (!ok) report(out.writer->error());
    out.writer.reset();
    return ok ? 0 : -1;
  }
  if (!out.handle) return 0;
  const char* key = out.format ? out.format->key : "";
  int rc = PXF_close(out.handle);
  out.handle = nullptr;
  out.format = nullptr;
  if (rc != 0) {
    report(withReason(target + ": cannot be written as " + key));
    out.file.abandon();
  } else if (!out.file.commit()) {
    report(out.file.error());
    rc = -1;
  }
  return rc;
}

// Opens the output of `target` with `info` (whose name it fills with the
// partial file), or, when it is open already, moves it on to its next frame
// with `info.image`. False after giving the output up.
bool openOutputFrame(const std::string& target, ConversionOutput& out, PxfFileInfo& info) {
  if (out.handle) {
    *out.handle->image = *info.image;
    if (PXF_set_frame(out.handle, out.frame + 1) == out.frame + 1) {
      out.frame++;
      return true;
    }
  } else {
    if (!out.file.open(target, TatomicFile::kNamed)) {
      report(out.file.error());
      return false;
    }
    info.name = info.name2 = out.file.path().c_str();
    info.one = 1;
    info.comment = "Image converted using ifftoany";
    info.creator = "Kelp";
    info.imageCount = 1;
    out.handle = PXF_open(&info, "w");
    out.format = out.handle ? out.handle->format : nullptr;
    out.frame = 0;
    if (out.handle) return true;
  }
  abandonOutput(out);
  return false;
}

// Gives an output up: the temporary file goes.
void abandonOutput(ConversionOutput& out) {
  if (out.writer) out.writer->abandon();
  out.writer.reset();
  if (out.handle) PXF_close(out.handle);
  out.file.abandon();
  out.handle = nullptr;
  out.format = nullptr;
}

}  // namespace

void kelpconvert::report(const std::string& text) { TerrorHandler::send(Tstring(text.c_str())); }

int ifftoanyInit(const char*, const char* key) {
  loadAllPXFPlugins();
  if (!key || !*key) return -1;
  if (std::strcmp(key, "gif") == 0 || std::strcmp(key, "psd") == 0) return 0;
  if (!PXF_find(key)) {
    report(std::string("Unknown image type: ") + key);
    return -1;
  }
  return 0;
}

int ifftoany(const char* input, const char* output, const char* key) {
  if (!input || !output || !key) return -1;
  if (std::strcmp(key, "gif") == 0 || std::strcmp(key, "psd") == 0) return throughWriter(input, output, key);
  return convertOut(input, output, key);
}

int ifftoanyFinish(const char* output) {
  Outputs& all = outputs();
  std::map<std::string, ConversionOutput>::node_type node;
  {
    std::lock_guard<std::mutex> hold(all.lock);
    if (output) node = all.records.extract(output);
  }
  // Finished, the record leaves the map: a long run of outputs keeps none.
  return node.empty() ? 0 : finishOutput(node.key(), node.mapped());
}

void ifftoanyAbandon(const char* output) {
  Outputs& all = outputs();
  std::map<std::string, ConversionOutput>::node_type node;
  {
    std::lock_guard<std::mutex> hold(all.lock);
    if (output) node = all.records.extract(output);
  }
  if (!node.empty()) abandonOutput(node.mapped());
}

int ifftoanyClose() {
  Outputs& all = outputs();
  std::map<std::string, ConversionOutput> records;
  {
    std::lock_guard<std::mutex> hold(all.lock);
    records.swap(all.records);
  }
  for (auto& [target, record] : records) finishOutput(target, record);
  return 0;
}
