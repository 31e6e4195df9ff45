// Writes a document with one layer set of LAYERS layers of W x H, each with
// its own transparency ramp, a mask, and a blend mode taken in turn from
// normal, multiply, screen and overlay, run-length packed: the input of
// bench/psd_set_bench.sh. Usage: make_psd_set OUT W H LAYERS [KEY...]
// (other blend keys to take in turn instead)
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kelpimage/photoshop/tchannel.h"

using namespace zkPhotoshop;

namespace {

struct Out {
  std::vector<uint8_t> b;
  void u8(uint32_t v) { b.push_back(uint8_t(v)); }
  void u16(uint32_t v) { u8(v >> 8), u8(v); }
  void u32(uint32_t v) { u16(v >> 16), u16(v); }
  void text(const char* s) { b.insert(b.end(), s, s + 4); }
  void raw(const std::vector<uint8_t>& v) { b.insert(b.end(), v.begin(), v.end()); }
};

// A channel of w x h from f(x, y), packed with its row table in front.
template <class F>
std::vector<uint8_t> packed(uint32_t w, uint32_t h, F f) {
  Tchannel ch(w, h, dataFormat8);
  uint8_t* raw = ch.rawPointer();
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) raw[size_t(y) * w + x] = uint8_t(f(x, y));
  ch.fCompression = compressionRLE;
  ch.compress(false);
  std::vector<uint8_t> data = {0, 1};
  data.insert(data.end(), ch.fCompressed.begin(), ch.fCompressed.begin() + ch.fDataLength);
  return data;
}

struct Layer {
  std::string name;
  std::string blend = "norm";
  uint32_t section = 0;            // 0, or 1 for the head and 3 for the end of the set
  int32_t rect[4] = {0, 0, 0, 0};  // top, left, bottom, right
  int32_t mask[4] = {0, 0, 0, 0};
  uint8_t maskDefault = 0;
  std::vector<std::pair<int, std::vector<uint8_t>>> channels;
};

void record(Out& o, const Layer& l) {
  for (int32_t v : l.rect) o.u32(uint32_t(v));
  o.u16(uint32_t(l.channels.size()));
  for (const auto& [id, data] : l.channels) o.u16(uint32_t(id) & 0xFFFF), o.u32(uint32_t(data.size()));
  o.text("8BIM");
  o.text(l.blend.c_str());
  o.u8(255), o.u8(0), o.u8(0), o.u8(0);
  Out extra;
  bool masked = l.mask[2] > l.mask[0];
  extra.u32(masked ? 20 : 0);
  if (masked) {
    for (int32_t v : l.mask) extra.u32(uint32_t(v));
    extra.u8(l.maskDefault), extra.u8(0), extra.u16(0);
  }
  extra.u32(0);  // no blending ranges
  size_t n = l.name.size();
  extra.u8(uint32_t(n));
  extra.b.insert(extra.b.end(), l.name.begin(), l.name.end());
  while ((n + 1) % 4) extra.u8(0), ++n;
  if (l.section) {
    extra.text("8BIM"), extra.text("lsct"), extra.u32(4), extra.u32(l.section);
  }
  o.u32(uint32_t(extra.b.size()));
  o.raw(extra.b);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: make_psd_set OUT W H LAYERS [KEY...]\n");
    return 2;
  }
  const uint32_t w = uint32_t(std::atoi(argv[2])), h = uint32_t(std::atoi(argv[3]));
  const int count = std::atoi(argv[4]);
  std::vector<std::string> modes = {"norm", "mul ", "scrn", "over"};
  if (argc > 5) modes.assign(argv + 5, argv + argc);
  for (std::string& m : modes) m.resize(4, ' ');
  std::vector<Layer> layers;
  Layer end;
  end.name = "</Layer set>";
  end.section = 3;
  layers.push_back(end);
  for (int i = 0; i < count; ++i) {
    Layer l;
    l.name = "layer " + std::to_string(i);
    l.blend = modes[size_t(i) % modes.size()];
    int32_t inset = int32_t(i) * int32_t(w) / (4 * count);
    l.rect[0] = inset, l.rect[1] = inset / 2, l.rect[2] = int32_t(h) - inset / 3, l.rect[3] = int32_t(w) - inset;
    uint32_t lw = uint32_t(l.rect[3] - l.rect[1]), lh = uint32_t(l.rect[2] - l.rect[0]);
    double cx = lw * (0.3 + 0.04 * i), cy = lh * 0.5;
    l.channels.push_back(
        {-1, packed(lw, lh, [&](uint32_t x, uint32_t y) { return (x * 255 / lw + y * 64 / lh) % 256; })});
    for (int c = 0; c < 3; ++c)
      l.channels.push_back({c, packed(lw, lh, [&](uint32_t x, uint32_t y) {
                              double d = std::hypot(x - cx, y - cy);
                              return uint32_t(128 + 127 * std::sin(d / (20.0 + 7 * c + i))) & 255;
                            })});
    l.mask[0] = l.rect[0] + int32_t(lh / 8), l.mask[1] = l.rect[1] + int32_t(lw / 8);
    l.mask[2] = l.rect[2] - int32_t(lh / 8), l.mask[3] = l.rect[3] - int32_t(lw / 8);
    l.maskDefault = i % 2 ? 255 : 0;
    uint32_t mw = uint32_t(l.mask[3] - l.mask[1]), mh = uint32_t(l.mask[2] - l.mask[0]);
    l.channels.push_back({-2, packed(mw, mh, [&](uint32_t x, uint32_t y) { return (x + y) * 255 / (mw + mh); })});
    layers.push_back(l);
  }
  Layer head;
  head.name = "set";
  head.blend = "pass";
  head.section = 1;
  layers.push_back(head);

  Out info;
  info.u16(uint32_t(layers.size()));
  for (const Layer& l : layers) record(info, l);
  for (const Layer& l : layers)
    for (const auto& [id, data] : l.channels) info.raw(data);
  if (info.b.size() % 2) info.u8(0);

  Out f;
  f.text("8BPS"), f.u16(1), f.u32(0), f.u16(0), f.u16(3), f.u32(h), f.u32(w), f.u16(8), f.u16(3);
  f.u32(0), f.u32(0);  // colour mode data, resources
  f.u32(uint32_t(4 + info.b.size() + 4));
  f.u32(uint32_t(info.b.size()));
  f.raw(info.b);
  f.u32(0);  // global mask
  f.u16(1);  // the flattened image: white, run-length
  std::vector<uint8_t> white = packed(w, h, [](uint32_t, uint32_t) { return 255u; });
  std::vector<uint8_t> table(white.begin() + 2, white.begin() + 2 + 2 * h),
      rows(white.begin() + 2 + 2 * h, white.end());
  for (int c = 0; c < 3; ++c) f.raw(table);
  for (int c = 0; c < 3; ++c) f.raw(rows);
  std::FILE* out = std::fopen(argv[1], "wb");
  if (!out) return 1;
  bool ok = std::fwrite(f.b.data(), 1, f.b.size(), out) == f.b.size();
  return std::fclose(out) == 0 && ok ? 0 : 1;
}
