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
#include "psd.h"
#include "util.h"

namespace kimg {

using namespace zkPhotoshop;

namespace {

const char* modeName(uint16_t mode) {
  static const char* const names[] = {"Bitmap", "Grayscale", "Indexed",      "RGB",     "CMYK",
                                      "?",      "?",         "Multichannel", "Duotone", "Lab"};
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
  for (int i = 0; i < messages.length(); ++i)
    std::fprintf(to, "%swarning: %s\n", to == stderr ? "kimg: " : "", messages[i].asChar());
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
