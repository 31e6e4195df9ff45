// The IFF file class: lifecycle and guarded calls, a header patched with the
// tile count at the end, float files narrowed to bytes, depth pictures.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kelpimage/image/tiffimagefile.h"
#include "testutil.h"

using namespace kelptest;

namespace {
// A hand-made IFF of `w` by 1 float pixels, stored without compression.
std::vector<uint8_t> floatFile(uint32_t type, const std::vector<float>& samples, uint32_t w) {
  auto be16 = [](std::vector<uint8_t>& b, uint16_t v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
  };
  std::vector<uint8_t> tbhd;
  put32(tbhd, w);
  put32(tbhd, 1);
  be16(tbhd, 1);
  be16(tbhd, 1);
  put32(tbhd, type);
  be16(tbhd, 3);  // four bytes a channel
  be16(tbhd, 1);
  put32(tbhd, 0);  // stored
  put32(tbhd, 0);
  put32(tbhd, 0);
  std::vector<uint8_t> tile;
  be16(tile, 0);
  be16(tile, 0);
  be16(tile, uint16_t(w - 1));
  be16(tile, 0);
  for (float s : samples) {
    uint32_t bits;
    std::memcpy(&bits, &s, 4);
    put32(tile, bits);
  }
  std::vector<uint8_t> body;
  putTag(body, "CIMG");
  putTag(body, "FVER");
  put32(body, 4);
  put32(body, 0x10001);
  putTag(body, "TBHD");
  put32(body, 32);
  body.insert(body.end(), tbhd.begin(), tbhd.end());
  putTag(body, "FOR4");
  put32(body, uint32_t(4 + 8 + tile.size()));
  putTag(body, "TBMP");
  putTag(body, "RGBA");
  put32(body, uint32_t(tile.size()));
  body.insert(body.end(), tile.begin(), tile.end());
  std::vector<uint8_t> file;
  putTag(file, "FOR4");
  put32(file, uint32_t(body.size()));
  file.insert(file.end(), body.begin(), body.end());
  return file;
}
}  // namespace

TEST(TiffImageFile, LifecycleAndGuardedCalls) {
  TempDir dir;
  TiffImageFile closed;
  EXPECT_FALSE(closed.isActive());
  EXPECT_EQ(closed.close(), -1);
  EXPECT_EQ(closed.width(), 0);
  EXPECT_EQ(closed.height(), 0);
  EXPECT_EQ(closed.compression(), TiffImageFile::kNone);
  EXPECT_EQ(closed.setCompression(TiffImageFile::kRLE), -1);
  EXPECT_EQ(closed.load(nullptr, nullptr), -1);
  EXPECT_EQ(closed.loadBitmap(nullptr, nullptr), -1);
  EXPECT_EQ(closed.save(nullptr, nullptr, 0), -1);

  std::string name = dir.file("a.iff");
  {
    TiffImageFile out(name.c_str(), "w");
    ASSERT_TRUE(out.isActive());
    EXPECT_EQ(out.file(), reinterpret_cast<FLfile*>(out.image()));
    out.setSize(40, 30);
    out.setType(3);
    out.setCompression(TiffImageFile::kQRL);
    EXPECT_EQ(out.setCompression(TiffImageFile::TfileCompression(4)), 0);  // ignored
    EXPECT_EQ(out.compression(), TiffImageFile::kQRL);
    out.setDpi(200.0f);
    uint16_t v = 0x0102;
    out.setField(TiffTag('N', 'U', 'M', 0x12), 2, &v);
    std::vector<uint8_t> px(40 * 30 * 4, 100);
    EXPECT_EQ(out.save(px.data(), nullptr, 0), 0);
  }  // the destructor closes
  TiffImageFile in(name.c_str(), "r");
  ASSERT_TRUE(in.isActive());
  EXPECT_EQ(in.width(), 40);
  EXPECT_EQ(in.height(), 30);
  EXPECT_EQ(in.type(), 3u);
  EXPECT_EQ(in.bytesPerPixel(), 1);
  EXPECT_EQ(in.compression(), TiffImageFile::kQRL);
  EXPECT_FLOAT_EQ(in.dpi(), 200.0f);
  const void* value = nullptr;
  EXPECT_EQ(in.getField(TiffTag('N', 'U', 'M', 0x12), &value), 2);
  EXPECT_EQ(in.queryControlFlags(int(ILC_READ | ILC_HEADER)), int(ILC_READ | ILC_HEADER));
  unsigned short w, h;
  EXPECT_EQ(in.setZoom(20, 15, 0, 0, 0.5f, 0.5f), 0);
  in.getNewSize(w, h);
  EXPECT_EQ(w, 20);
  in.getSize(w, h);
  EXPECT_EQ(w, 20);  // the zoomed size, as the line readers see it

  // A compressor number above 3 reads as 0.
  auto bytes = readBytes(name);
  bytes[24 + 8 + 23] = 40;
  writeBytes(dir.file("c.iff"), bytes);
  TiffImageFile odd(dir.file("c.iff").c_str(), "r");
  EXPECT_EQ(odd.compression(), TiffImageFile::kNone);

  // A failing reopen leaves the object inactive.
  TiffImageFile again(name.c_str(), "r");
  EXPECT_FALSE(again.reopen(dir.file("missing.iff").c_str(), "r"));
  EXPECT_FALSE(again.isActive());
}

TEST(TiffImageFile, HeaderPatchedWithTheTileCountAtTheEnd) {
  TempDir dir;
  std::string name = dir.file("tiles.iff");
  TiffImageFile out(name.c_str(), "w");
  out.setSize(64, 32);
  out.setType(3);
  out.setPages(0);  // not known yet
  std::vector<uint8_t> px(64 * 32 * 4, 77);
  int tiles = 0;
  for (int x = 0; x < 64; x += 16) {
    int bounds[4] = {x, 0, x + 15, 31};
    ASSERT_EQ(out.writeTile(&px[size_t(x) * 4], nullptr, bounds, 64), 0);
    ++tiles;
  }
  out.rewriteHeaderPageCount(tiles);
  ASSERT_EQ(out.endTile(), 0);
  ASSERT_EQ(out.close(), 0);
  TiffImageFile in(name.c_str(), "r");
  EXPECT_EQ(in.pages(), 4);
  std::vector<uint8_t> back(px.size());
  EXPECT_EQ(in.loadBitmap(back.data(), nullptr), 0);
  EXPECT_EQ(back, px);

  // Through a pipe the header cannot be reached again: the file stays as written.
  std::string piped = dir.file("piped.iff");
  TiffImageFile pipe(("pipe:cat > " + piped).c_str(), "w");
  pipe.setSize(16, 16);
  pipe.setPages(1);
  int bounds[4] = {0, 0, 15, 15};
  ASSERT_EQ(pipe.writeTile(px.data(), nullptr, bounds, 16), 0);
  pipe.rewriteHeaderPageCount(9);
  pipe.endTile();
  ASSERT_EQ(pipe.close(), 0);
  TiffImageFile check(piped.c_str(), "r");
  EXPECT_EQ(check.pages(), 1);
  check.rewriteHeaderPageCount(5);  // a read handle: nothing happens
  EXPECT_EQ(check.pages(), 1);
  std::vector<uint8_t> small(16 * 16 * 4);
  EXPECT_EQ(check.load(small.data(), nullptr), 0);
}

TEST(TiffImageFile, FloatFilesNarrowedToBytes) {
  TempDir dir;
  // Channels in file order alpha, then the three colour channels.
  writeBytes(dir.file("f.iff"), floatFile(3, {1.0f, 0.999f, 1.0f, -0.5f, 0.5f, 2.0f, 0.0f, 0.25f}, 2));
  TiffImageFile f(dir.file("f.iff").c_str(), "r");
  EXPECT_EQ(f.bytesPerPixel(), 4);
  uint8_t out[8] = {};
  f.loadFloatToByte(out, nullptr);  // returns 0 by design: the pixels tell
  EXPECT_EQ(std::vector<uint8_t>(out, out + 8), (std::vector<uint8_t>{254, 255, 0, 255, 255, 0, 63, 127}));

  writeBytes(dir.file("g.iff"), floatFile(1, {0.5f, 1.0f, 0.0f}, 1));
  TiffImageFile g(dir.file("g.iff").c_str(), "r");
  uint8_t rgb[4] = {};
  g.loadFloatToByte(rgb, nullptr);
  EXPECT_EQ(std::vector<uint8_t>(rgb, rgb + 4), (std::vector<uint8_t>{127, 255, 0, 255}));  // no alpha: 255
}

TEST(TiffImageFile, DepthPicturesAndPixelAccessors) {
  TempDir dir;
  auto writeDepth = [&](const std::vector<float>& z) {
    std::string name = dir.file("z.iff");
    TiffImageFile out(name.c_str(), "w");
    out.setSize(uint16_t(z.size()), 1);
    out.setType(7);
    std::vector<uint8_t> px(z.size() * 4, 0);
    auto copy = z;
    out.save(px.data(), copy.data(), 0);
    out.close();
    TiffImageFile in(name.c_str(), "r");
    TpixelMap map(int(z.size()), 1);
    in.readZBuffer(map, int(z.size()), 1);
    std::vector<uint32_t> grey;
    for (int x = 0; x < map.width(); ++x) grey.push_back(map.pixelPointer(x, 0)->fValue);
    return grey;
  };
  EXPECT_EQ(writeDepth({0, 0, 0}), (std::vector<uint32_t>{0, 0, 0}));
  EXPECT_EQ(writeDepth({-0.5f, -0.5f}), (std::vector<uint32_t>{0xFFFFFFFF, 0xFFFFFFFF}));
  // A rising series: the nearest (smallest) draws 255, the farthest about
  // 55: the step is held as a float, 0.01 a little short, so 54 here.
  auto ramp = writeDepth({-4.0f, 0.0f, -3.0f, -2.0f});
  EXPECT_EQ(ramp[0], 0xFFFFFFFFu);
  EXPECT_EQ(ramp[1], 0u);
  float step = float(2.0 * 0.005);
  EXPECT_EQ(ramp[2], 0x01010101u * uint32_t(int(255.0 - 1.0 / double(step))));
  EXPECT_EQ(ramp[3], 0x36363636u);

  TiffImageFile out(dir.file("p.iff").c_str(), "w");
  out.setSize(2, 1);
  uint8_t line[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 9, 9};
  out.setPixelRGBA(line, 1, 10, 20, 30, 40);
  EXPECT_EQ(line[4], 30);
  EXPECT_EQ(line[6], 10);
  out.setPixelRGBA(line, 2, 0, 0, 0, 0);  // at the width: refused
  EXPECT_EQ(line[8], 9);
  unsigned char r = 0, g = 0, b = 0, a = 0;
  out.getPixelRGBA(line, 0, r, g, b, &a);
  EXPECT_EQ(r, 3);
  EXPECT_EQ(a, 4);
  r = 77;
  out.getPixelRGBA(line, 2, r, g, b, nullptr);
  EXPECT_EQ(r, 77);
  out.pixelRGBAswap(line);
  EXPECT_EQ(line[0], 4);
  EXPECT_EQ(line[3], 1);
  EXPECT_EQ(line[8], 9);
  out.close();
}

// A zoomed 16-bit read hands out blue, green, red, alpha in their places,
// whatever order the zoom works in.
TEST(TiffImageFile, ZoomedSixteenBitLinesKeepTheirChannels) {
  TempDir dir;
  std::string name = dir.file("deep.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 32, 16);
  ILsettype(im, int32_t(ILT_COLOR | ILT_ALPHA));
  ILsetbpp(im, 2);
  std::vector<uint16_t> px(32 * 16 * 4);
  for (size_t i = 0; i < px.size(); i += 4) px[i] = 1000, px[i + 1] = 2000, px[i + 2] = 3000, px[i + 3] = 4000;
  ASSERT_EQ(ILsave(im, px.data(), nullptr, 0), 0);
  ILclose(im);
  for (const char* filter : {"gauss", "impulse", "lanczos"}) {
    TiffImageFile f(name.c_str(), "r");
    ASSERT_EQ(f.setBytesPerPixel(2), 0);
    ASSERT_EQ(ILsetzoom(f.image(), filter, 16, 8, 0, 0, 0.5f, 0.5f), 0);
    std::vector<uint16_t> line(16 * 4);
    ASSERT_EQ(f.readLine(line.data(), nullptr), 0);
    EXPECT_EQ(std::vector<uint16_t>(line.begin(), line.begin() + 4), (std::vector<uint16_t>{1000, 2000, 3000, 4000}))
        << filter;
    std::vector<uint16_t> all(16 * 8 * 4);
    TiffImageFile g(name.c_str(), "r");
    g.setBytesPerPixel(2);
    ILsetzoom(g.image(), filter, 16, 8, 0, 0, 0.5f, 0.5f);
    ASSERT_EQ(g.load(all.data(), nullptr), 0);
    EXPECT_EQ(std::vector<uint16_t>(all.end() - 4, all.end()), (std::vector<uint16_t>{1000, 2000, 3000, 4000}))
        << filter;
  }
}

// The depth picture of a damaged file is no picture: the code is left.
TEST(TiffImageFile, DepthPictureOfATruncatedFile) {
  TempDir dir;
  std::string name = dir.file("z.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 100, 80);
  ILsettype(im, int32_t(ILT_COLOR | ILT_DEPTH));
  std::vector<uint8_t> px(100 * 80 * 4, 50);
  std::vector<float> z(100 * 80);
  for (size_t i = 0; i < z.size(); ++i) z[i] = -1.0f / float(1 + i % 97);
  ASSERT_EQ(ILsave(im, px.data(), z.data(), 0), 0);
  ILclose(im);
  auto bytes = readBytes(name);
  bytes.resize(bytes.size() * 2 / 3);
  writeBytes(name, bytes);
  TiffImageFile f(name.c_str(), "r");
  TpixelMap map(100, 80);
  map.pixelPointer(0, 0)->fValue = 0x12345678;
  f.readZBuffer(map, 100, 80);
  EXPECT_NE(flerrno, 0);
  EXPECT_EQ(map.pixelPointer(0, 0)->fValue, 0x12345678u);  // untouched
}
