// Pixels through files: writing by lines, tiles or whole, reading back by
// lines, whole or composited, on files and pipes, with every compression,
// channel layout, channel size and direction.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "kelpimage/il/il.h"
#include "testutil.h"

using namespace kelptest;

namespace {
// A picture of 4 channels with flat areas, gradients and detail; 1 or 2
// bytes a channel, memory order blue, green, red, alpha.
std::vector<uint8_t> picture(int w, int h, int bytes) {
  std::vector<uint8_t> p(size_t(w) * h * 4 * bytes);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 4; ++c) {
        int v = (x < w / 3) ? 40 * c + 10 : (y > h / 2) ? (x * 3 + y * 5 + c * 50) & 255 : ((x ^ y) * 29 + c) & 255;
        for (int b = 0; b < bytes; ++b) p[((size_t(y) * w + x) * 4 + c) * bytes + b] = uint8_t(v + b * 7);
      }
  return p;
}

std::vector<float> depthRamp(int w, int h) {
  std::vector<float> z(size_t(w) * h);
  for (size_t i = 0; i < z.size(); ++i) z[i] = -1.0f / float(1 + i % 300);
  return z;
}

struct Shape {
  uint32_t type;
  int bytes;
  uint32_t compress;
  bool topdown;
};

// What a 4-channel memory pixel holds after a round trip through `s`.
void expected(const Shape& s, uint8_t* px, int bytes) {
  auto set = [&](int c, int v) {
    for (int b = 0; b < bytes; ++b) px[c * bytes + b] = uint8_t(bytes == 2 ? (b ? v & 255 : v >> 8) : v);
  };
  int full = bytes == 2 ? 0xFFFF : 255;
  if (!(s.type & ILT_COLOR)) {
    for (int b = 0; b < bytes; ++b) px[0 * bytes + b] = px[2 * bytes + b] = px[1 * bytes + b];
  }
  if (!(s.type & ILT_ALPHA)) set(3, full);
}

// The quick three-byte form carries no red, except in tiles it had to store.
bool quickForm(const Shape& s) {
  return s.bytes == 1 && (s.type & ILT_COLOR) && (s.compress == 2 || (s.compress == 3 && !(s.type & ILT_ALPHA)));
}

std::string roundTrip(const Shape& s, const std::string& name, int w, int h, std::string readName = "") {
  if (readName.empty()) readName = name;
  auto src = picture(w, h, s.bytes);
  auto z = depthRamp(w, h);
  ILimage* im = ILopen(name.c_str(), "w");
  if (!im) return "open for writing failed";
  ILsetsize(im, w, h);
  ILsettype(im, int32_t(s.type));
  ILsetbpp(im, s.bytes);
  ILsetcompress(im, s.compress);
  ILctrl(im, ILC_TOPDOWN, s.topdown);
  auto copy = src;  // packing may turn the source in place
  if (ILsave(im, copy.data(), z.data(), 0) != 0) return std::string("save: ") + FLstrerror(flerrno);
  if (ILclose(im) != 0) return "close failed";

  im = ILopen(readName.c_str(), "r");
  if (!im) return std::string("open: ") + FLstrerror(flerrno);
  if (s.bytes == 2) ILsetbpp(im, 2);
  ILctrl(im, ILC_TOPDOWN, s.topdown);
  std::vector<uint8_t> back(src.size(), 0xCD);
  std::vector<float> zback(z.size(), 9.0f);
  int rc = ILload(im, back.data(), zback.data());
  ILclose(im);
  if (rc) return std::string("load: ") + FLstrerror(rc);
  bool quad = s.bytes == 1 && s.compress == 3 && (s.type & ILT_COLOR) && (s.type & ILT_ALPHA);
  for (size_t p = 0; p < size_t(w) * h; ++p) {
    std::vector<uint8_t> want(src.begin() + long(p * 4 * s.bytes), src.begin() + long((p + 1) * 4 * s.bytes));
    expected(s, want.data(), s.bytes);
    // With ILC_TOPDOWN the loaded buffer starts with the top line; ILsave's
    // buffer rises with y either way.
    size_t q = s.topdown ? (size_t(h) - 1 - p / w) * w + p % w : p;
    uint8_t* got = &back[q * 4 * s.bytes];
    if (quickForm(s) && got[2] == 0) got[2] = want[2];
    if (quad) {
      // Literal pixels of the four-channel form come back crossed.
      uint8_t crossed[4] = {want[1], want[0], want[3], want[2]};
      if (std::memcmp(got, want.data(), 4) != 0 && std::memcmp(got, crossed, 4) != 0)
        return "pixel " + std::to_string(p);
      continue;
    }
    if (std::memcmp(got, want.data(), want.size()) != 0) return "pixel " + std::to_string(p);
    float wantZ = (s.type & ILT_DEPTH) ? z[p] : 0.0f;
    if (zback[q] != wantZ) return "depth " + std::to_string(p);
  }
  return "";
}
}  // namespace

TEST(ILpixels, RoundTripsEveryCombination) {
  TempDir dir;
  int n = 0;
  for (uint32_t type : {1u, 3u, 0u, 2u, 7u, 4u, 5u})
    for (int bytes : {1, 2})
      for (uint32_t compress : {0u, 1u, 2u, 3u})
        for (bool topdown : {false, true}) {
          Shape s{type, bytes, compress, topdown};
          std::string what = roundTrip(s, dir.file("rt.iff"), 150, 130);
          EXPECT_EQ(what, "") << "type " << type << " bytes " << bytes << " compress " << compress << " topdown "
                              << topdown;
          ++n;
        }
  EXPECT_EQ(n, 112);
}

TEST(ILpixels, PipesBothWays) {
  TempDir dir;
  Shape s{7, 1, 1, false};
  EXPECT_EQ(roundTrip(s, "pipe:cat > " + dir.file("p.iff"), 90, 70, "pipe:cat " + dir.file("p.iff")), "");
  EXPECT_EQ(roundTrip(s, "pipe:gzip -c > " + dir.file("p.gz"), 90, 70, "pipe:gzip -dc " + dir.file("p.gz")), "");
  Shape deep{3, 2, 1, true};
  EXPECT_EQ(roundTrip(deep, "pipe:cat > " + dir.file("q.iff"), 90, 70, "pipe:cat " + dir.file("q.iff")), "");
}

TEST(ILpixels, TilesInAnyOrderOnFilesAndPipes) {
  TempDir dir;
  const int w = 100, h = 96;
  auto src = picture(w, h, 1);
  auto z = depthRamp(w, h);
  std::string name = dir.file("tiles.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, w, h);
  ILsettype(im, 7);
  ILsetpages(im, 4);
  // Tiles of heights 64 and 32 side by side, written top first and right to left.
  std::vector<std::array<int32_t, 4>> rects = {{50, 64, 99, 95}, {0, 32, 49, 95}, {50, 0, 99, 63}, {0, 0, 49, 31}};
  auto work = src;
  for (auto& r : rects)
    ASSERT_EQ(ILwritetile(im, &work[(size_t(r[1]) * w + r[0]) * 4], &z[size_t(r[1]) * w + r[0]], r.data(), w), 0);
  ASSERT_EQ(ILendtile(im), 0);
  EXPECT_TRUE(im->ictl & ILC_DONE);
  EXPECT_EQ(ILwritetile(im, work.data(), nullptr, rects[0].data(), w), IL_EDONE);
  ASSERT_EQ(ILclose(im), 0);

  for (std::string source : {name, "pipe:cat " + name})
    for (bool topdown : {false, true}) {
      im = ILopen(source.c_str(), "r");
      ASSERT_NE(im, nullptr);
      ILctrl(im, ILC_TOPDOWN, topdown);
      for (int i = 0; i < h; ++i) {
        int y = topdown ? h - 1 - i : i;
        uint8_t* line = nullptr;
        float* zline = nullptr;
        ASSERT_EQ(ILgetline(im, &line, &zline), 0) << source << " line " << i;
        ASSERT_NE(line, nullptr);
        ASSERT_NE(zline, nullptr);
        EXPECT_EQ(std::memcmp(line, &src[size_t(y) * w * 4], w * 4), 0) << source << " y " << y;
        EXPECT_EQ(std::memcmp(zline, &z[size_t(y) * w], w * 4), 0) << source << " y " << y;
      }
      uint8_t* line = reinterpret_cast<uint8_t*>(1);
      float* zline = reinterpret_cast<float*>(1);
      EXPECT_EQ(ILgetline(im, &line, &zline), IL_EDONE);
      EXPECT_EQ(line, nullptr);
      EXPECT_EQ(zline, nullptr);
      ILclose(im);
    }

  // Depth alone, and the whole image in file order.
  im = ILopen(name.c_str(), "r");
  std::vector<float> zonly(z.size());
  ASSERT_EQ(ILload(im, nullptr, zonly.data()), 0);
  EXPECT_EQ(zonly, z);
  ILclose(im);
  im = ILopen(name.c_str(), "r");
  std::vector<uint8_t> whole(src.size());
  ASSERT_EQ(ILloadbm(im, whole.data(), nullptr), 0);
  EXPECT_EQ(whole, src);
  EXPECT_TRUE(im->ictl & ILC_DONE);
  EXPECT_EQ(ILloadbm(im, whole.data(), nullptr), IL_EDONE);
  ILclose(im);
}

TEST(ILpixels, WriterTileLayout) {
  TempDir dir;
  auto rectsOf = [&](const std::string& name) {
    FLfile* f = FLsopen(name.c_str(), "r", 0);
    std::vector<std::array<int, 4>> rects;
    uint32_t tag, size;
    FLbgnget(f, &tag, &size);
    FLbgnrgroup(f, nullptr, nullptr);
    while (true) {
      int rc = FLbgnget(f, &tag, &size);
      if (rc == FL_GROUP) {
        FLbgnrgroup(f, nullptr, nullptr);
        continue;
      }
      if (rc) break;
      if (tag == IL_RGBA) {
        uint8_t b[8];
        FLget(f, b, 8);
        rects.push_back({b[0] << 8 | b[1], b[2] << 8 | b[3], b[4] << 8 | b[5], b[6] << 8 | b[7]});
      }
      FLendget(f);
    }
    FLclose(f);
    return rects;
  };
  auto write = [&](int w, int h, bool topdown) {
    std::string name = dir.file("layout.iff");
    ILimage* im = ILopen(name.c_str(), "w");
    ILsetsize(im, w, h);
    ILsettype(im, 3);
    ILctrl(im, ILC_TOPDOWN, topdown);
    std::vector<uint8_t> px(size_t(w) * h * 4, 5);
    EXPECT_EQ(ILsave(im, px.data(), nullptr, 0), 0);
    EXPECT_EQ(im->pages, ((h - 1) / int(im->theight) + 1) * ((w - 1) / int(im->twidth) + 1));
    ILclose(im);
    return rectsOf(name);
  };
  using R = std::vector<std::array<int, 4>>;
  EXPECT_EQ(write(100, 100, false), (R{{0, 0, 63, 63}, {64, 0, 99, 63}, {0, 64, 63, 99}, {64, 64, 99, 99}}));
  EXPECT_EQ(write(1, 1, false), (R{{0, 0, 0, 0}}));
  EXPECT_EQ(write(10, 130, true), (R{{0, 66, 9, 129}, {0, 2, 9, 65}, {0, 0, 9, 1}}));
  EXPECT_EQ(write(5000, 10, false).size(), 20u);

  // Zeros for a missing line, depth ignored without the depth bit, no tiles no group.
  std::string name = dir.file("z.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 4, 2);
  ILsettype(im, 3);
  float zl = nullptr == nullptr ? -1.0f : 0.0f;
  std::vector<float> zrow(4, zl);
  EXPECT_EQ(ILwriteline(im, nullptr, zrow.data()), 0);
  std::vector<uint8_t> row(16, 200);
  EXPECT_EQ(ILwriteline(im, row.data(), nullptr), 0);
  EXPECT_TRUE(im->ictl & ILC_DONE);
  EXPECT_EQ(ILendtile(im), 0);
  ILclose(im);
  im = ILopen(name.c_str(), "r");
  std::vector<uint8_t> back(32, 1);
  std::vector<float> zb(8, 5.0f);
  ASSERT_EQ(ILload(im, back.data(), zb.data()), 0);
  EXPECT_EQ(back[0], 0);
  EXPECT_EQ(back[16], 200);
  EXPECT_EQ(zb[0], 0.0f);  // no depth in the file: zeroed
  ILclose(im);
}

TEST(ILpixels, WideningBlackAndGrey) {
  TempDir dir;
  std::string name = dir.file("w.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 3, 1);
  ILsettype(im, 3);
  uint8_t px[12] = {0xAB, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
  ASSERT_EQ(ILwriteline(im, px, nullptr), 0);
  ILclose(im);
  im = ILopen(name.c_str(), "r");
  ASSERT_EQ(ILsetbpp(im, 2), 0);
  uint8_t wide[24] = {};
  ASSERT_EQ(ILreadline(im, wide, nullptr), 0);
  EXPECT_EQ(wide[0], 0xAB);
  EXPECT_EQ(wide[1], 0xAB);
  EXPECT_EQ(wide[23], 11);
  ILclose(im);

  // Black with depth: no colour is decoded or allocated; lines are null or zeroed.
  name = dir.file("black.iff");
  im = ILopen(name.c_str(), "w");
  ILsetsize(im, 8, 4);
  im->type = ILT_BLACK | ILT_DEPTH;
  std::vector<float> z(32, -0.5f);
  ASSERT_EQ(ILsave(im, nullptr, z.data(), 0), 0);
  ILclose(im);
  im = ILopen(name.c_str(), "r");
  uint8_t* line = nullptr;
  float* zline = nullptr;
  ASSERT_EQ(ILgetline(im, &line, &zline), 0);
  EXPECT_EQ(line, nullptr);
  ASSERT_NE(zline, nullptr);
  EXPECT_EQ(zline[7], -0.5f);
  EXPECT_EQ(im->color, nullptr);
  std::vector<uint8_t> colour(32, 9);
  ASSERT_EQ(ILreadline(im, colour.data(), nullptr), 0);
  EXPECT_EQ(colour[0], 0);
  ILclose(im);
}

TEST(ILpixels, CompositingOverABuffer) {
  TempDir dir;
  std::string name = dir.file("c.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 4, 2);
  ILsettype(im, 3);
  ILsetcompress(im, 0);
  // Row 0: opaque red; row 1: half-transparent premultiplied green, and clear.
  uint8_t px[32] = {0, 0,  255, 255, 0, 0,  255, 255, 0, 0, 255, 255, 0, 0, 255, 255,
                    0, 64, 0,   128, 0, 64, 0,   128, 0, 0, 0,   0,   0, 0, 0,   0};
  ASSERT_EQ(ILsave(im, px, nullptr, 0), 0);
  ILclose(im);

  std::vector<uint32_t> buf(6 * 3, 0xFF0000FF);  // opaque blue
  im = ILopen(name.c_str(), "r");
  ASSERT_EQ(ILcload(im, buf.data(), 6, 3, 1, 1, 1.0f, 0.0f, 0), 0);
  ILclose(im);
  EXPECT_EQ(buf[0], 0xFF0000FFu);
  EXPECT_EQ(buf[1 * 6 + 1], 0xFFFF0000u);  // copied
  // Half green over blue: each byte (d * 128 >> 8) + s, the top byte 128 + 255 clamped.
  EXPECT_EQ(buf[2 * 6 + 1], 0xFF00407Fu);
  EXPECT_EQ(buf[2 * 6 + 3], 0xFF0000FFu);  // clear: unchanged

  // A tile whose last column falls on column 0 is not drawn.
  std::vector<uint32_t> small(4, 7);
  im = ILopen(name.c_str(), "r");
  ASSERT_EQ(ILcload(im, small.data(), 2, 2, -3, 0, 1.0f, 0.0f, 0), 0);
  EXPECT_EQ(small[0], 7u);
  ILclose(im);
  // Faded: alpha 255 becomes 128.
  im = ILopen(name.c_str(), "r");
  std::vector<uint32_t> faded(4, 0);
  ASSERT_EQ(ILcload(im, faded.data(), 2, 2, 0, 0, 1.0f, 0.5f, 0), 0);
  EXPECT_EQ(faded[0], 0x80FF0000u);
  EXPECT_EQ(ILcload(im, faded.data(), 2, 2, 0, 0, 1.0f, 0.5f, 0), IL_EDONE);
  ILclose(im);
}

TEST(ILpixels, DeepReadingCarriesOverToTheNextImage) {
  // ILC_DEEP is the caller's bit and survives ILnext: a 1-byte image after a
  // 2-byte one is filled by its own channel size.
  TempDir dir;
  std::string name = dir.file("two.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  for (int bytes : {2, 1}) {
    if (bytes == 1) {
      ASSERT_EQ(ILnext(im), 0);
    }
    ILsetsize(im, 9, 7);
    ILsettype(im, 1);
    ILsetbpp(im, bytes);
    std::vector<uint8_t> px(9 * 7 * 4 * size_t(bytes), 60);
    ASSERT_EQ(ILsave(im, px.data(), nullptr, 0), 0);
  }
  ILclose(im);
  im = ILopen(name.c_str(), "r");
  ASSERT_EQ(ILsetbpp(im, 2), 0);
  std::vector<uint8_t> back(9 * 7 * 8);
  ASSERT_EQ(ILload(im, back.data(), nullptr), 0);
  ASSERT_EQ(ILnext(im), 0);
  EXPECT_TRUE(im->ictl & ILC_DEEP);
  std::fill(back.begin(), back.end(), 0);
  ASSERT_EQ(ILload(im, back.data(), nullptr), 0);
  EXPECT_EQ(back[3], 255);        // alpha filled at one byte a channel
  EXPECT_EQ(back[9 * 7 * 4], 0);  // nothing written past the picture
  ILclose(im);
}

TEST(ILpixels, BadFilesGiveCodes) {
  TempDir dir;
  std::string name = dir.file("good.iff");
  auto src = picture(70, 70, 1);
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 70, 70);
  ASSERT_EQ(ILsave(im, src.data(), nullptr, 0), 0);
  ILclose(im);
  auto good = readBytes(name);

  // Tiles decoded one by one or several at once fail alike.
  auto loadOn = [&](const std::vector<uint8_t>& bytes, bool byLines, uint32_t threads) {
    writeBytes(dir.file("bad.iff"), bytes);
    ILimage* r = ILopen(dir.file("bad.iff").c_str(), "r");
    if (!r) return -flerrno;
    ILsetthreads(r, threads);
    std::vector<uint8_t> back(70 * 70 * 4);
    if (byLines) ILctrl(r, ILC_TOPDOWN, 1);
    int rc = ILload(r, back.data(), nullptr);
    ILclose(r);
    return rc;
  };
  auto load = [&](const std::vector<uint8_t>& bytes, bool byLines) {
    int one = loadOn(bytes, byLines, 1);
    EXPECT_EQ(loadOn(bytes, byLines, 2), one);
    return one;
  };
  // Truncated inside the last tile: that tile is damaged, its lines missing.
  auto cut = good;
  cut.resize(good.size() - 300);
  EXPECT_EQ(load(cut, true), FL_EFIT);
  EXPECT_NE(load(cut, false), 0);
  // A whole tile missing from a group whose sizes are right: the group ends
  // early, for the line reader and for the whole-image reader alike.
  {
    size_t last = 0;
    for (size_t i = 0; i + 4 <= good.size(); ++i)
      if (text(good, i, 4) == "RGBA") last = i;
    auto shorter = std::vector<uint8_t>(good.begin(), good.begin() + long(last));
    auto patch = [&](size_t at, size_t value) {
      for (int k = 0; k < 4; ++k) shorter[at + size_t(k)] = uint8_t(value >> (24 - 8 * k));
    };
    patch(4, shorter.size() - 8);
    for (size_t i = 0; i + 4 <= shorter.size(); ++i)
      if (text(shorter, i, 4) == "TBMP") patch(i - 4, shorter.size() - (i - 8) - 8);
    EXPECT_EQ(load(shorter, true), IL_EDONE);
    EXPECT_EQ(load(shorter, false), IL_EDONE);
    // The same tile twice in place of the missing one.
    auto twice = good;
    twice.resize(last);
    size_t firstTile = 0;
    for (size_t i = 0; i + 4 <= good.size(); ++i)
      if (text(good, i, 4) == "RGBA") {
        firstTile = i;
        break;
      }
    size_t tileBytes = 8 + ((size_t(good[firstTile + 4]) << 24) | (size_t(good[firstTile + 5]) << 16) |
                            (size_t(good[firstTile + 6]) << 8) | good[firstTile + 7]);
    tileBytes = (tileBytes + 3) / 4 * 4;
    twice.insert(twice.end(), good.begin() + long(firstTile), good.begin() + long(firstTile + tileBytes));
    shorter = twice;
    patch(4, shorter.size() - 8);
    for (size_t i = 0; i + 4 <= shorter.size(); ++i)
      if (text(shorter, i, 4) == "TBMP") patch(i - 4, shorter.size() - (i - 8) - 8);
    EXPECT_EQ(load(shorter, false), FL_EFIT);
  }
  // No tile group at all.
  size_t tbmp = 0;
  for (size_t i = 0; i + 4 <= good.size(); ++i)
    if (text(good, i, 4) == "TBMP") {
      tbmp = i;
      break;
    }
  ASSERT_GT(tbmp, 0u);
  auto noGroup = good;
  std::memcpy(&noGroup[tbmp - 8], "JUNK", 4);
  EXPECT_EQ(load(noGroup, false), IL_ENOBITMAP);
  // A compressor number with no function.
  auto codec = good;
  codec[24 + 8 + 23] = 9;
  EXPECT_EQ(load(codec, false), IL_ENOCODEC);
  // A tile outside the image, and a damaged payload.
  auto outside = good;
  outside[tbmp + 4 + 8 + 4] = 0x7F;  // x2 of the first tile
  EXPECT_EQ(load(outside, false), FL_EFIT);
  auto damaged = good;
  for (size_t i = tbmp + 4 + 16; i < tbmp + 200; ++i) damaged[i] = 0xFF;
  EXPECT_EQ(load(damaged, false), FL_EFIT);

  // The line server shows a damaged tile as missing lines with flerrno 0.
  writeBytes(dir.file("bad.iff"), damaged);
  for (uint32_t threads : {1u, 2u}) {
    ILimage* r = ILopen(dir.file("bad.iff").c_str(), "r");
    ILsetthreads(r, threads);
    uint8_t* line = reinterpret_cast<uint8_t*>(1);
    ASSERT_EQ(ILgetline(r, &line, nullptr), 0);
    EXPECT_EQ(line, nullptr);
    EXPECT_EQ(flerrno, 0);
    ILclose(r);
  }

  // Writing with a compressor that does not exist.
  im = ILopen(dir.file("w.iff").c_str(), "w");
  ILsetcompress(im, 9);
  int32_t rect[4] = {0, 0, 1, 1};
  uint8_t px[16] = {};
  EXPECT_EQ(ILwritetile(im, px, nullptr, rect, 2), IL_ENOCODEC);
  ILclose(im);
}

namespace {
// Every line of `name` as the line server gives it, or the whole image as
// ILload does, decoded on `threads` threads.
std::vector<uint8_t> readOn(const std::string& name, uint32_t threads, bool byLines, int bytes, bool topdown,
                            std::vector<float>& depth) {
  ILimage* im = ILopen(name.c_str(), "r");
  EXPECT_NE(im, nullptr);
  if (!im) return {};
  ILsetthreads(im, threads);
  if (bytes == 2) ILsetbpp(im, 2);
  ILctrl(im, ILC_TOPDOWN, topdown);
  int32_t w = 0, h = 0;
  ILgetsize(im, &w, &h);
  std::vector<uint8_t> pixels(size_t(w) * size_t(h) * 4 * size_t(bytes), 0xCD);
  depth.assign(size_t(w) * size_t(h), 9.0f);
  if (!byLines) {
    EXPECT_EQ(ILload(im, pixels.data(), depth.data()), 0);
  } else {
    for (int32_t y = 0; y < h; ++y)
      EXPECT_EQ(ILreadline(im, &pixels[size_t(y) * size_t(w) * 4 * size_t(bytes)], &depth[size_t(y) * size_t(w)]), 0);
  }
  ILclose(im);
  return pixels;
}
}  // namespace

// The tiles of a band, or of the whole image, decoded on several threads
// give the lines that one thread gives, in every layout and compression.
TEST(ILpixels, SeveralThreadsDecodeTheSameLines) {
  TempDir dir;
  const int w = 203, h = 150;
  for (uint32_t type : {7u, 3u, 4u})
    for (int bytes : {1, 2})
      for (uint32_t compress : {0u, 1u, 2u, 3u}) {
        std::string name = dir.file("t.iff");
        auto src = picture(w, h, bytes);
        auto z = depthRamp(w, h);
        ILimage* im = ILopen(name.c_str(), "w");
        ILsetsize(im, w, h);
        ILsettype(im, int32_t(type));
        ILsetbpp(im, bytes);
        ILsetcompress(im, compress);
        ILsetpagesize(im, 32, 24);  // many tiles a band, the last ones narrower
        ASSERT_EQ(ILsave(im, src.data(), z.data(), 0), 0);
        ASSERT_EQ(ILclose(im), 0);
        for (bool byLines : {false, true})
          for (bool topdown : {false, true}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " bytes " << bytes << " compress " << compress
                                            << " lines " << byLines << " topdown " << topdown);
            std::vector<float> zOne, zMore;
            auto one = readOn(name, 1, byLines, bytes, topdown, zOne);
            for (uint32_t threads : {2u, 3u}) {
              EXPECT_EQ(readOn(name, threads, byLines, bytes, topdown, zMore), one);
              EXPECT_EQ(zMore, zOne);
            }
          }
      }
}

// A raster larger than the caches is stored past them: whole, at one thread
// or two, it holds what the lines read one by one hold. Its rows start on
// every other 8 bytes, and its last tiles are two pixels wide.
TEST(ILpixels, LargeRastersLoadAsTheirLinesRead) {
  TempDir dir;
  const int w = 2050, h = 2048;
  std::string name = dir.file("large.iff");
  auto src = picture(w, h, 1);
  auto z = depthRamp(w, h);
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, w, h);
  ILsettype(im, 7);
  ILsetcompress(im, 1);
  ASSERT_EQ(ILsave(im, src.data(), z.data(), 0), 0);
  ASSERT_EQ(ILclose(im), 0);
  std::vector<float> zLines, zWhole;
  auto lines = readOn(name, 1, true, 1, false, zLines);
  for (uint32_t threads : {1u, 2u}) {
    SCOPED_TRACE(threads);
    EXPECT_TRUE(readOn(name, threads, false, 1, false, zWhole) == lines);
    EXPECT_TRUE(zWhole == zLines);
  }
}

// Tiles that overlap land in file order, the later over the earlier, however
// many threads decode them: two that cover the image's area between them,
// so that the whole-image reader takes them.
TEST(ILpixels, OverlappingTilesLandInFileOrderOnAnyThreads) {
  TempDir dir;
  const int w = 96, h = 64;
  auto src = picture(w, h, 1);
  std::string name = dir.file("overlap.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, w, h);
  ILsettype(im, 3);
  ILsetpages(im, 2);
  std::vector<std::array<int32_t, 4>> rects = {{0, 0, 63, 47}, {32, 16, 95, 63}};
  for (size_t i = 0; i < rects.size(); ++i) {
    auto work = src;
    for (uint8_t& b : work) b = uint8_t(b + 37 * i);  // each tile tells its own pixels apart
    auto& r = rects[i];
    ASSERT_EQ(ILwritetile(im, &work[(size_t(r[1]) * w + r[0]) * 4], nullptr, r.data(), w), 0);
  }
  ASSERT_EQ(ILendtile(im), 0);
  ASSERT_EQ(ILclose(im), 0);
  auto load = [&](uint32_t threads) {
    ILimage* r = ILopen(name.c_str(), "r");
    ILsetthreads(r, threads);
    std::vector<uint8_t> back(size_t(w) * h * 4, 0xCD);
    EXPECT_EQ(ILloadbm(r, back.data(), nullptr), 0);
    ILclose(r);
    return back;
  };
  auto one = load(1);
  EXPECT_EQ(one[(size_t(20) * w + 40) * 4], uint8_t(src[(size_t(20) * w + 40) * 4] + 37));  // the second tile's
  EXPECT_EQ(load(2), one);
}
