// kimg psd: what a layered Photoshop document holds, and the lines of its
// flattened image, of one layer or of one alpha channel for kimg convert.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "commands.h"
#include "kelpimage/photoshop/tpsdfile.h"
#include "kelpimage/photoshop/tpsdwarning.h"
#include "lines.h"
#include "psd.h"
#include "util.h"

namespace kimg {

using namespace zkPhotoshop;

namespace {

const char* modeName(uint16_t mode) {
  static const char* const names[] = {"Bitmap",  "Grayscale",    "Indexed", "RGB", "CMYK", "?",
                                      "?",       "Multichannel", "Duotone", "Lab"};
  return mode < 10 ? names[mode] : "?";
}

const char* compressionName(uint32_t c) {
  switch (c) {
    case 0: return "raw";
    case 1: return "RLE";
    case 2: return "zip";
    case 3: return "zip+prediction";
    default: return "unknown";
  }
}

std::string rectText(const TlRect& r) {
  char text[64];
  std::snprintf(text, sizeof text, "(%d,%d)-(%d,%d)", r.left, r.top, r.right, r.bottom);
  return text;
}

std::string channelName(int id) {
  switch (id) {
    case -1: return "alpha";
    case -2: return "mask";
    case -3: return "user mask";
    case 0: return "R";
    case 1: return "G";
    case 2: return "B";
    default: return std::to_string(id);
  }
}

void printLayer(const TpsdLayer& l, int depth) {
  std::string indent(size_t(depth) * 2 + 2, ' ');
  std::printf("%s\"%s\"  %s %dx%d  %s  opacity %d%s%s\n", indent.c_str(), l.fName.asChar(), rectText(l.fRect).c_str(),
              l.width(), l.height(), keyText(l.fBlendKey).asChar(), l.fOpacity, l.fClipping ? "  clipped" : "",
              l.isHidden() ? "  hidden" : "");
  if (l.fMaskSize)
    std::printf("%s  mask %s default %d%s\n", indent.c_str(), rectText(l.fMaskRect).c_str(), l.fMaskDefault,
                l.fMaskFlags & 2 ? " disabled" : "");
  std::string channels;
  for (const TpsdChannelInfo& c : l.fChannels) {
    channels.append("  ").append(channelName(c.id)).append(" ").append(compressionName(c.compression));
    channels.append(" ").append(std::to_string(c.length));
  }
  std::printf("%s  channels:%s\n", indent.c_str(), channels.c_str());
}

void printSet(const TpsdLayer& l, int depth) {
  std::string indent(size_t(depth) * 2 + 2, ' ');
  std::printf("%sset \"%s\" (%s)  %s  opacity %d%s\n", indent.c_str(), l.fName.asChar(),
              l.fSectionType == sectionOpenSet ? "open" : "closed",
              keyText(l.fSectionBlendKey ? l.fSectionBlendKey : l.fBlendKey).asChar(), l.fOpacity,
              l.isHidden() ? "  hidden" : "");
}

void printResources(const TpsdFile& doc) {
  std::printf("resources:");
  for (const TpsdResource& r : doc.fResources) std::printf(" %u", r.id);
  std::printf("\n");
  for (int i = 0; i < doc.fAlphaNames.length(); ++i)
    std::printf("alpha %d: \"%s\"%s\n", i, doc.fAlphaNames[i].asChar(),
                i < doc.fAlphaIds.length() ? (" id " + std::to_string(doc.fAlphaIds[i])).c_str() : "");
}

void printWarnings(std::FILE* to = stdout) {
  TstringArray messages = theWarnings().messages();
  for (int i = 0; i < messages.length(); ++i) std::fprintf(to, "%swarning: %s\n", to == stderr ? "kimg: " : "", messages[i].asChar());
  theWarnings().clear();
}

// The flattened image's compression word, read without its pixels.
const char* flattenedCompression(TpsdFile& doc) {
  TrgbaData* image = nullptr;
  if (!doc.getCompositeImage(image)) return "unreadable";
  return compressionName(doc.fImageCompression);
}

}  // namespace

int psdOpen(const std::string& path, TpsdFile& doc) {
  doc.open(TfilePath(path.c_str()), false);
  if (doc.fPath.fullName().isEmpty()) return fail(path, doc.lastReason().str());
  return 0;
}

int psd(const PsdOptions& o) {
  const std::string& path = o.file;
  theWarnings().clear();
  if (psdEditing(o) && o.set.empty()) return psdEdit(o);
  if (!o.set.empty()) {
    if (o.out.empty()) return usage("--set needs -o OUT");
    ConvertOptions c;
    c.in = path;
    c.out = o.out;
    c.set = o.set;
    int status = convert(c);
    printWarnings(stderr);
    return status;
  }
  TpsdFile doc;
  if (int status = psdOpen(path, doc)) return status;
  if (o.sets) {
    TstringArray names;
    if (doc.readLayerSetNames(names) != 0) return fail(path, doc.lastReason().str());
    for (int i = 0; i < names.length(); ++i) std::printf("%s\n", names[i].asChar());
    printWarnings();
    return 0;
  }
  // Reading the channels fills in each one's compression.
  if (!doc.readAllChannelInformation()) return fail(path, doc.lastReason().str());
  std::printf("%s: Photoshop document, %u x %u, %u bits, %s, %u channels\n", path.c_str(), doc.fImageWidth,
              doc.fImageHeight, doc.fDepth, modeName(doc.fColorMode), doc.fChannelCount);
  printResources(doc);
  std::printf("flattened image: %s\n", flattenedCompression(doc));
  std::printf("layers: %zu (top first)\n", doc.fLayers.size());
  int depth = 0;
  for (auto it = doc.fLayers.rbegin(); it != doc.fLayers.rend(); ++it) {
    const TpsdLayer& l = **it;
    if (l.isSetHead()) {
      printSet(l, depth++);
    } else if (l.isSetEnd()) {
      depth = depth > 0 ? depth - 1 : 0;
    } else {
      printLayer(l, depth);
    }
  }
  printWarnings();
  return 0;
}

}  // namespace kimg

namespace kimg {

namespace {

// The document and the channels the lines come from.
struct PsdSource {
  TpsdFile doc;
  std::unique_ptr<TrgbaData> owned;
  TpixelData16* pixels = nullptr;
  int width = 0, height = 0;
  int grey = -1;  // the one channel of an alpha picture, or -1 for colour
  int row = 0;
};

TpsdLayer* findLayer(TpsdFile& doc, const std::string& name) {
  if (name.size() > 1 && name[0] == '#') {
    char* end = nullptr;
    long n = std::strtol(name.c_str() + 1, &end, 10);
    if (*end == '\0' && n >= 0) {
      for (const auto& layer : doc.fLayers)
        if (layer->fSectionType == sectionLayer && n-- == 0) return layer.get();
      return nullptr;
    }
  }
  return doc.getLayerObjFromName(Tstring(name.c_str()));
}

// Points `src` at the part; false with the reason.
bool choosePart(PsdSource& src, const PsdPart& part, std::string& why) {
  TpsdFile& doc = src.doc;
  if (!part.layer.empty()) {
    if (!doc.readAllLayerRecordInformation() && !doc.lastReason().isEmpty()) return why = doc.lastReason().str(), false;
    TpsdLayer* layer = findLayer(doc, part.layer);
    if (!layer) return why = "has no layer \"" + part.layer + "\"", false;
    if (layer->width() <= 0 || layer->height() <= 0) return why = "layer \"" + part.layer + "\" is empty", false;
    if (!(src.pixels = doc.layerPixels(*layer)))
      return why = doc.lastReason().isEmpty() ? "layer \"" + part.layer + "\" has no pixels" : doc.lastReason().str(), false;
    src.width = layer->width();
    src.height = layer->height();
    return true;
  }
  TrgbaData* image = nullptr;
  if (!part.set.empty()) {
    if (!doc.getCompositeImageOfLayerSet(Tstring(part.set.c_str()), image)) return why = doc.lastReason().str(), false;
  } else if (part.alpha >= 0) {
    if (!doc.getAlphaChannelMap(image, part.alpha)) return why = doc.lastReason().str(), false;
    src.owned.reset(image);
    src.grey = part.alpha + 3;
  } else {
    // The flattened image, in RGB whatever the document's colour mode.
    if (!doc.readPicture(image)) return why = doc.lastReason().str(), false;
    src.owned.reset(image);
  }
  src.pixels = image->pixels16();
  src.width = int(image->width());
  src.height = int(image->height());
  for (auto& [id, ch] : src.pixels->fChannels) {
    if (!ch) continue;
    ch->rawPointer();
    if (ch->expandFailed()) return why = "channel " + std::to_string(id) + " of the flattened image is damaged", false;
  }
  return true;
}

void putSample(uint8_t* line, size_t at, int bytes, const uint8_t* samples, size_t index) {
  if (bytes == 2)
    std::memcpy(line + at * 2, samples + index * 2, 2);
  else
    line[at] = samples[index];
}

}  // namespace

std::unique_ptr<Lines> psdLines(const std::string& path, const PsdPart& part, bool topdown, std::string& why) {
  auto src = std::make_shared<PsdSource>();
  if (psdOpen(path, src->doc)) return why = "", nullptr;
  if (!choosePart(*src, part, why)) return nullptr;
  auto lines = std::make_unique<Lines>();
  lines->width = src->width;
  lines->height = src->height;
  lines->bytes = src->doc.fDataFormat == dataFormat16 ? 2 : 1;
  lines->topdown = topdown;
  // Layers, sets and documents with transparency have alpha; alpha
  // channels and opaque documents do not.
  lines->alpha = src->grey < 0 && src->pixels->hasChannel(channelTransparency);
  bool alpha = lines->alpha;
  int bytes = lines->bytes;
  lines->next = [src, alpha, bytes, topdown](uint8_t* line) {
    int y = topdown ? src->row : src->height - 1 - src->row;
    ++src->row;
    size_t w = size_t(src->width);
    size_t first = size_t(y) * w;
    const uint8_t* planes[4] = {};
    const int ids[4] = {channelBlue, channelGreen, channelRed, channelTransparency};
    for (int c = 0; c < 4; ++c) {
      int id = src->grey >= 0 && c < 3 ? src->grey : ids[c];
      planes[c] = src->pixels->getChannelPixPtr(id);
    }
    uint16_t full = bytes == 2 ? 65535 : 255;
    for (size_t x = 0; x < w; ++x) {
      for (int c = 0; c < 4; ++c) {
        if (planes[c] && (c < 3 || alpha)) {
          putSample(line, 4 * x + size_t(c), bytes, planes[c], first + x);
        } else if (bytes == 2) {
          std::memcpy(line + (4 * x + size_t(c)) * 2, &full, 2);
        } else {
          line[4 * x + size_t(c)] = uint8_t(full);
        }
      }
    }
    return true;
  };
  return lines;
}

}  // namespace kimg
