// Writes what the library reads of a document to a folder, for an
// independent reader to check: a manifest, and every channel's samples as
// big-endian bytes, one file a channel.
#include <cstdio>
#include <string>
#include <vector>

#include "kelpimage/photoshop/tpsdfile.h"

using namespace zkPhotoshop;

namespace {

bool writeChannel(Tchannel& ch, const std::string& path) {
  const uint8_t* raw = ch.rawPointer();
  if (ch.expandFailed()) return false;
  std::vector<uint8_t> bytes(raw, raw + ch.rawBytes());
  if (ch.fFormat == dataFormat16)
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) std::swap(bytes[i], bytes[i + 1]);
  std::FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

std::string hex(const Tstring& s) {
  std::string out;
  char b[3];
  for (unsigned char c : s.str()) {
    std::snprintf(b, sizeof b, "%02x", c);
    out += b;
  }
  return out.empty() ? "-" : out;
}

// The rectangle a channel's samples cover, as the record gives it.
TlRect rectOf(const TpsdLayer& l, int id) {
  return id == channelUserMask ? l.fMaskRect : id == channelRealUserMask ? l.fRealRect : l.fRect;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: psd_dump FILE DIR\n");
    return 2;
  }
  std::string dir = argv[2];
  TpsdFile doc;
  doc.open(TfilePath(argv[1]), false);
  if (doc.fPath.fullName().isEmpty() || !doc.readAllChannelInformation()) {
    std::fprintf(stderr, "%s\n", doc.lastError().asChar());
    return 1;
  }
  std::FILE* m = std::fopen((dir + "/manifest.txt").c_str(), "w");
  if (!m) return 1;
  std::fprintf(m, "doc %u %u %u %u %u\n", doc.fImageWidth, doc.fImageHeight, doc.fDepth, doc.fChannelCount,
               doc.fColorMode);
  bool ok = true;
  for (size_t i = 0; i < doc.fLayers.size(); ++i) {
    TpsdLayer& l = *doc.fLayers[i];
    std::fprintf(m, "layer %zu %u %d %d %d %d %s %u %u %u %s\n", i, l.fSectionType, l.fRect.top, l.fRect.left,
                 l.fRect.bottom, l.fRect.right, hex(keyText(l.fBlendKey)).c_str(), l.fOpacity, l.fClipping, l.fFlags,
                 hex(l.fName).c_str());
    if (!l.fPixels) continue;
    for (const TpsdChannelInfo& info : l.fChannels) {
      TlRect r = rectOf(l, info.id);
      Tchannel* ch = l.fPixels->channel(info.id);
      if (!ch || r.bottom <= r.top || r.right <= r.left) continue;
      std::string name = std::string("L").append(std::to_string(i)).append("_").append(std::to_string(info.id));
      name.append(".bin");
      ok = writeChannel(*ch, dir + "/" + name) && ok;
      std::fprintf(m, "lchan %zu %d %s\n", i, info.id, name.c_str());
    }
  }
  // Every set's composite, its four channels one after the other.
  for (size_t i = 0; i < doc.fLayers.size(); ++i) {
    TpsdLayer& l = *doc.fLayers[i];
    TrgbaData* set = nullptr;
    if (!l.isSetHead() || !doc.getCompositeImageOfLayerSet(l.fName, set)) continue;
    std::string name = std::string("S_").append(std::to_string(i)).append(".bin");
    std::FILE* f = std::fopen((dir + "/" + name).c_str(), "wb");
    if (!f) return 1;
    for (int id : {0, 1, 2, -1}) {
      Tchannel* ch = set->pixels16()->channel(id);
      const uint8_t* raw = ch->rawPointer();
      std::vector<uint8_t> bytes(raw, raw + ch->rawBytes());
      if (ch->fFormat == dataFormat16)
        for (size_t k = 0; k + 1 < bytes.size(); k += 2) std::swap(bytes[k], bytes[k + 1]);
      ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size() && ok;
    }
    ok = std::fclose(f) == 0 && ok;
    std::fprintf(m, "set %zu %s %s\n", i, hex(l.fName).c_str(), name.c_str());
  }
  TrgbaData* composite = nullptr;
  if (!doc.getCompositeImage(composite)) {
    std::fprintf(stderr, "%s\n", doc.lastError().asChar());
    return 1;
  }
  for (int id = 0; id < composite->numChannels(); ++id) {
    std::string name = std::string("C_").append(std::to_string(id)).append(".bin");
    ok = writeChannel(*composite->pixels16()->channel(id), dir + "/" + name) && ok;
    std::fprintf(m, "composite %d %s\n", id, name.c_str());
  }
  for (int a = 0; a + 3 < doc.fChannelCount; ++a) {
    TrgbaData* alpha = nullptr;
    if (!doc.getAlphaChannelMap(alpha, a)) {
      std::fprintf(stderr, "%s\n", doc.lastError().asChar());
      return 1;
    }
    std::string name = std::string("A_").append(std::to_string(a)).append(".bin");
    ok = writeChannel(*alpha->pixels16()->channel(a + 3), dir + "/" + name) && ok;
    std::fprintf(m, "alpha %d %s\n", a, name.c_str());
    delete alpha;
  }
  return std::fclose(m) == 0 && ok ? 0 : 1;
}
