// Documents made byte by byte for the tests: each part of the file is
// written as the format lays it out, so a test can change any one of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace psdtest {

struct Bytes {
  std::vector<uint8_t> b;
  Bytes& u8(uint32_t v) {
    b.push_back(uint8_t(v));
    return *this;
  }
  Bytes& u16(uint32_t v) { return u8(v >> 8).u8(v); }
  Bytes& u32(uint32_t v) { return u16(v >> 16).u16(v); }
  Bytes& text(const std::string& s) {
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  Bytes& raw(const std::vector<uint8_t>& v) {
    b.insert(b.end(), v.begin(), v.end());
    return *this;
  }
  Bytes& zeros(size_t n) {
    b.insert(b.end(), n, 0);
    return *this;
  }
  // A length-prefixed section.
  Bytes& section(const Bytes& body) { return u32(uint32_t(body.b.size())).raw(body.b); }
  size_t size() const { return b.size(); }
};

struct Channel {
  int id;
  std::vector<uint8_t> data;  // the compression word and what follows it
};

// Raw samples as a channel's file form.
inline Channel rawChannel(int id, const std::vector<uint8_t>& samples) {
  Channel c{id, {}};
  c.data.reserve(samples.size() + 2);
  c.data.push_back(0);  // the compression word: raw
  c.data.push_back(0);
  for (uint8_t v : samples) c.data.push_back(v);
  return c;
}

struct Layer {
  int32_t top = 0, left = 0, bottom = 0, right = 0;
  std::vector<Channel> channels;
  std::string blend = "norm";
  uint8_t opacity = 255, clipping = 0, flags = 0;
  Bytes mask;    // the mask data after its size; empty for none
  Bytes blocks;  // additional blocks
  std::string name = "Layer";
};

inline Bytes block(const std::string& key, const Bytes& data) {
  Bytes b;
  b.text("8BIM").text(key).u32(uint32_t(data.size())).raw(data.b);
  return b;
}

inline Bytes record(const Layer& l) {
  Bytes r;
  r.u32(uint32_t(l.top)).u32(uint32_t(l.left)).u32(uint32_t(l.bottom)).u32(uint32_t(l.right));
  r.u16(uint32_t(l.channels.size()));
  for (const Channel& c : l.channels) r.u16(uint32_t(c.id) & 0xFFFF).u32(uint32_t(c.data.size()));
  r.text("8BIM").text(l.blend).u8(l.opacity).u8(l.clipping).u8(l.flags).u8(0);
  Bytes extra;
  extra.section(l.mask);
  extra.u32(8).u32(0x0000FFFF).u32(0x0000FFFF);  // grey blending ranges
  extra.u8(uint32_t(l.name.size())).text(l.name);
  extra.zeros((4 - (l.name.size() + 1) % 4) % 4);
  extra.raw(l.blocks.b);
  return r.section(extra);
}

// The layer info: count, records, channel data, padded to an even length.
inline Bytes layerInfo(const std::vector<Layer>& layers, int16_t count) {
  Bytes info;
  info.u16(uint16_t(count));
  for (const Layer& l : layers) info.raw(record(l).b);
  for (const Layer& l : layers)
    for (const Channel& c : l.channels) info.raw(c.data);
  if (info.size() % 2) info.u8(0);
  return info;
}

struct Document {
  uint16_t version = 1, channels = 3, depth = 8, mode = 3;
  uint32_t width = 4, height = 2;
  Bytes colourModeData;  // an indexed document's palette
  Bytes resources;
  std::vector<Layer> layers;
  int16_t layerCount = 0;         // 0: the number of layers
  bool sixteenBitLayout = false;  // layers inside "Lr16"
  uint16_t compression = 0;
  Bytes image;  // after the compression word; empty: raw planes of `fill`
  uint8_t fill = 7;

  std::vector<uint8_t> bytes() const {
    Bytes f;
    f.text("8BPS").u16(version).zeros(6).u16(channels).u32(height).u32(width).u16(depth).u16(mode);
    f.section(colourModeData);
    f.section(resources);
    Bytes section;
    if (!layers.empty()) {
      Bytes info = layerInfo(layers, layerCount ? layerCount : int16_t(layers.size()));
      if (sixteenBitLayout) {
        section.u32(0).u32(0).raw(block("Lr16", info).b);
      } else {
        section.section(info).u32(0);
      }
    }
    f.section(section);
    f.u16(compression);
    if (image.size())
      f.raw(image.b);
    else
      f.b.insert(f.b.end(), size_t(width) * height * channels * (depth / 8), fill);
    return f.b;
  }
};

}  // namespace psdtest
