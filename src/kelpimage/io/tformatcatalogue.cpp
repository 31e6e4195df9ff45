#include "kelpimage/io/tformatcatalogue.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"

namespace {

static_assert(PXF_HOLDS_8 == TsampleBit(TsampleType::kUint8) && PXF_HOLDS_16 == TsampleBit(TsampleType::kUint16) &&
              PXF_HOLDS_HALF == TsampleBit(TsampleType::kHalf) && PXF_HOLDS_FLOAT == TsampleBit(TsampleType::kFloat));

constexpr unsigned kIntegers = TsampleBit(TsampleType::kUint8) | TsampleBit(TsampleType::kUint16);

std::vector<std::string> split(const char* text) {
  std::vector<std::string> parts;
  std::string all = text ? text : "";
  for (size_t at = 0; at < all.size();) {
    size_t semi = all.find(';', at);
    if (semi == std::string::npos) semi = all.size();
    if (semi > at) parts.push_back(all.substr(at, semi - at));
    at = semi + 1;
  }
  return parts;
}

// The library's own formats.
std::vector<TformatInfo> builtIn() {
  TformatInfo iff;
  iff.key = "kelp";
  iff.name = "IFF";
  iff.description = "the application's own tiled format, with depth and named fields";
  iff.extensions = {"iff"};
  iff.canRead = iff.canWrite = iff.builtIn = true;
  iff.readTypes = iff.writeTypes = kIntegers;
  iff.alpha = iff.depth = iff.frames = iff.tiles = iff.resolution = iff.fields = true;
  iff.association = Tassociation::kPremultiplied;  // as renderers write it
  iff.options = {
      {"Compression", 0, 3, 1, "0 none, 1 RLE, 2 QRL, 3 QR4 (QRL and QR4 lose data)"},
      {"Tile Width", 0, 65535, 0, "pixels a tile, 0 for the size's default"},
      {"Tile Height", 0, 65535, 0, "pixels a tile, 0 for the size's default"},
      {"Top Down", 0, 1, 1, "1 writes bands of tiles from the top down; 0 from the bottom up, the picture held"}};
  TformatInfo sgi;
  sgi.key = "sgi";
  sgi.name = "SGI";
  sgi.description = "Silicon Graphics rgb files, verbatim or run-length, 8 and 16 bits";
  sgi.extensions = {"sgi", "rgb", "rgba", "bw"};
  sgi.canRead = sgi.canWrite = sgi.builtIn = true;
  sgi.readTypes = sgi.writeTypes = kIntegers;
  sgi.alpha = true;
  sgi.options = {{"Compression", 0, 1, 1, "0 verbatim, 1 run-length"}};
  TformatInfo psd;
  psd.key = "psd";
  psd.name = "Photoshop";
  psd.description = "layered Photoshop documents of 8 and 16 bits: the flattened image, and layers as further frames";
  psd.extensions = {"psd"};
  psd.canRead = psd.canWrite = psd.builtIn = true;
  psd.readTypes = psd.writeTypes = kIntegers;
  psd.alpha = psd.frames = psd.layers = true;
  return {iff, sgi, psd};
}

TformatInfo fromPlugin(const PxfFormat& f) {
  TformatInfo info;
  info.key = f.key;
  info.name = f.name ? f.name : f.key;
  info.description = f.description ? f.description : "";
  info.extensions = split(f.extensions);
  for (std::string& e : info.extensions)
    for (char& c : e) c = char(std::tolower(static_cast<unsigned char>(c)));
  info.path = f.path ? f.path : "";
  const PxfPluginOps& ops = *f.ops;
  info.canRead = ops.canRead;
  info.canWrite = ops.canWrite;
  // PXF_HOLDS_* are the bits of TsampleBit.
  unsigned types = ops.holds;
  if (!types) {
    if (f.depths & (1u << 7)) types |= TsampleBit(TsampleType::kUint8);
    if (f.depths & (1u << 15)) types |= TsampleBit(TsampleType::kUint16);
    if (f.depths & (1u << 31)) types |= TsampleBit(TsampleType::kFloat);
  }
  info.readTypes = info.writeTypes = types;
  info.alpha = f.matte != 0;
  info.depth = f.depth != 0;
  info.frames = f.flags & PXF_MULTIFRAME;
  info.tiles = f.flags & PXF_TILES;
  info.writesIndexes = f.flags & PXF_WRITES_INDEXES;
  info.anyAssociation = f.flags & PXF_ANY_ASSOCIATION;
  info.association = (f.flags & PXF_PREMULTIPLIED_ALPHA) ? Tassociation::kPremultiplied : Tassociation::kStraight;
  for (int32_t i = 0; i < ops.capabilityCount; ++i) {
    const PxfCapability& c = ops.capabilities[i];
    if (!(c.flags & 2) || !c.name) continue;
    if (std::strcmp(c.name, "DPI Resolution") == 0) info.resolution = true;
    info.options.push_back({c.name, c.minimum, c.maximum, c.fallback, c.help ? c.help : ""});
  }
  return info;
}

// The table, made again when plug-ins have come since.
struct Table {
  std::mutex lock;
  std::vector<TformatInfo> formats;
  int plugins = -1;
};

Table& table() {
  static Table* t = new Table;
  return *t;
}

int countPlugins() {
  int n = 0;
  while (PXF_format(n)) ++n;
  return n;
}

bool hasKey(const std::vector<TformatInfo>& all, const std::string& key) {
  for (const TformatInfo& f : all)
    if (f.key == key) return true;
  return false;
}

// A recogniser for each of the library's own formats.
bool isIff(const uint8_t* b, size_t n) {
  if (n < 12 || std::memcmp(b, "FOR4", 4) != 0) return false;
  // Forms of scenes and caches are chunked files too, but no pictures.
  for (const char* scene : {"Kelp", "MPLE", "KELP", "CACH"})
    if (std::memcmp(b + 8, scene, 4) == 0) return false;
  return true;
}
bool isSgi(const uint8_t* b, size_t n) { return n >= 2 && b[0] == 0x01 && b[1] == 0xDA; }
bool isPsd(const uint8_t* b, size_t n) { return n >= 6 && std::memcmp(b, "8BPS", 4) == 0 && b[4] == 0 && b[5] == 1; }

}  // namespace

const TformatOption* TformatInfo::option(const std::string& name) const {
  for (const TformatOption& o : options)
    if (strcasecmp(o.name.c_str(), name.c_str()) == 0) return &o;
  return nullptr;
}

bool TformatInfo::checkOption(const std::string& name, double value, std::string& why) const {
  const TformatOption* o = option(name);
  if (!o) {
    std::string names;
    for (const TformatOption& known : options) names += (names.empty() ? "" : ", ") + known.name;
    why = "the " + key + " format has no option \"" + name + "\"; its options are: " + (names.empty() ? "none" : names);
    return false;
  }
  if (o->minimum < o->maximum && !(value >= o->minimum && value <= o->maximum)) {
    char range[64], given[32];
    std::snprintf(range, sizeof range, "%g to %g", o->minimum, o->maximum);
    std::snprintf(given, sizeof given, "%g", value);
    why = "the " + key + " option \"" + o->name + "\" takes " + range + (o->help.empty() ? "" : " (" + o->help + ")") +
          ", not " + given;
    return false;
  }
  return true;
}

TsampleType TformatInfo::nearestWritten(TsampleType t) const {
  if (writes(t)) return t;
  // What keeps the most of `t`, widest first.
  static const TsampleType kOrder[4][4] = {
      {TsampleType::kUint16, TsampleType::kHalf, TsampleType::kFloat,
       TsampleType::kUint8},  // from 8 bits: halves hold them
      {TsampleType::kFloat, TsampleType::kHalf, TsampleType::kUint8, TsampleType::kUint16},   // from 16 bits
      {TsampleType::kFloat, TsampleType::kUint16, TsampleType::kUint8, TsampleType::kHalf},   // from halves
      {TsampleType::kHalf, TsampleType::kUint16, TsampleType::kUint8, TsampleType::kFloat}};  // from floats
  for (TsampleType other : kOrder[unsigned(t)])
    if (writes(other)) return other;
  return TsampleType::kUint8;
}

std::vector<TformatInfo> TformatCatalogue::formats() {
  loadAllPXFPlugins();
  Table& t = table();
  std::lock_guard<std::mutex> hold(t.lock);
  int plugins = countPlugins();
  if (plugins != t.plugins) {
    t.formats = builtIn();
    for (int i = 0; i < plugins; ++i) {
      const PxfFormat* f = PXF_format(i);
      // The library's own code serves its own formats; a plug-in of the
      // same key stands behind it.
      if (f && f->ops && !hasKey(t.formats, f->key)) t.formats.push_back(fromPlugin(*f));
    }
    t.plugins = plugins;
  }
  return t.formats;
}

bool TformatCatalogue::find(const std::string& key, TformatInfo& info) {
  for (const TformatInfo& f : formats())
    if (f.key == key) {
      info = f;
      return true;
    }
  return false;
}

bool TformatCatalogue::forExtension(const std::string& extension, TformatInfo& info) {
  for (const TformatInfo& f : formats())
    for (const std::string& e : f.extensions)
      if (strcasecmp(e.c_str(), extension.c_str()) == 0) {
        info = f;
        return true;
      }
  return false;
}

bool TformatCatalogue::forName(const std::string& name, TformatInfo& info) {
  size_t slash = name.rfind('/'), dot = name.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) || dot + 1 == name.size()) return false;
  return forExtension(name.substr(dot + 1), info);
}

std::string TformatCatalogue::identifyKey(const uint8_t* bytes, size_t count) {
  if (isIff(bytes, count)) return "kelp";
  if (isSgi(bytes, count)) return "sgi";
  if (isPsd(bytes, count)) return "psd";
  std::vector<TformatInfo> all = formats();
  // Formats with a signature first: a guess at a header never claims a
  // file that a signature names.
  for (bool weak : {false, true})
    for (int i = 0; const PxfFormat* f = PXF_format(i); ++i)
      if (bool(f->flags & PXF_WEAK_SIGNATURE) == weak && f->ops->canRead && f->ops->recognise &&
          f->ops->recognise(bytes, count) && hasKey(all, f->key))
        return f->key;
  return {};
}

bool TformatCatalogue::identify(const uint8_t* bytes, size_t count, TformatInfo& info) {
  std::string key = identifyKey(bytes, count);
  return !key.empty() && find(key, info);
}
