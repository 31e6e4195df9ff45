// Pictures in memory: Timage formats, copies and depth conversion;
// TtileList; TdataImage as a typed value.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kelpimage/base/tarray.h"
#include "kelpimage/image/tdataimage.h"
#include "kelpimage/image/timage.h"
#include "kelpimage/image/ttilelist.h"

TEST(Timage, FormatsSizesAndCopies) {
  Timage empty;
  EXPECT_EQ(empty.pixels(), nullptr);
  EXPECT_EQ(empty.pixelSize(), 4);
  EXPECT_THROW(Timage(0, 5, kRGBA8), TmemoryException);

  const int sizes[] = {4, 4, 3, 8, 6, 16, 12, 4, 4, 4};
  for (int f = 0; f < 10; ++f) {
    Timage im(2, 2, TpixelFormat(f));
    EXPECT_EQ(im.pixelSize(), sizes[f]) << f;
  }
  Timage im(3, 2, kRGB16);
  im.setPixelFormat(TpixelFormat(12));
  EXPECT_EQ(im.pixelFormat(), 12);
  EXPECT_EQ(im.pixelSize(), 6);  // an unknown format keeps the size

  Timage a(4, 3, kRGBA8);
  std::memset(a.pixels(), 7, 48);
  static_cast<uint8_t*>(a.pixels(3, 2))[0] = 9;
  EXPECT_EQ(static_cast<uint8_t*>(a.pixels())[47 - 3], 9);
  Timage deep;
  deep.set(a);
  EXPECT_NE(deep.pixels(), a.pixels());
  EXPECT_EQ(std::memcmp(deep.pixels(), a.pixels(), 48), 0);
  // Copies share the raster. They are made in storage that is never
  // destroyed, since destroying both would free the raster twice.
  alignas(Timage) unsigned char storage[2][sizeof(Timage)];
  auto* shallow = new (storage[0]) Timage(a);
  EXPECT_EQ(shallow->pixels(), a.pixels());
  auto* assigned = new (storage[1]) Timage(2, 2, kRGBA8);
  *assigned = deep;  // frees its own raster, shares deep's
  EXPECT_EQ(assigned->pixels(), deep.pixels());
  EXPECT_EQ(assigned->size(), deep.size());

  a.setSize(TportRect(10, 10, 30, 20));
  EXPECT_EQ(a.size(), TportRect(0, 0, 20, 10));
  EXPECT_NE(a.pixels(), nullptr);
  a.setSize(0, 5);
  EXPECT_EQ(a.pixels(), nullptr);
  EXPECT_EQ(a.width(), 0);
  a.setPixels(std::malloc(16));
  EXPECT_NE(a.pixels(), nullptr);
}

TEST(Timage, OpenGLDepthToIffForm) {
  // Perspective, near 1, far 100, depth range 0 to 1, against hand-computed values:
  // scale = 1 * 1 * 100 / 99, offset = 101 / 198 + 0.5.
  Timage z(4, 1, kDepthGL);
  float* v = static_cast<float*>(z.pixels());
  v[0] = 0.25f, v[1] = 0.998f, v[2] = 0.999f, v[3] = 0.5f;
  ASSERT_TRUE(z.glToIffDepthBuffer(false, 1.0f, 100.0f, 0.0, 1.0));
  double scale = float(100.0 / 99.0), offset = float(101.0 / 198.0 + 0.5);
  auto expect = [&](double in) { return float(-1.0 / ((-1.0 / (in - offset)) * scale)); };
  EXPECT_FLOAT_EQ(v[0], expect(0.25));
  EXPECT_FLOAT_EQ(v[1], expect(double(0.998f)));  // exactly 0.998 is still converted
  EXPECT_EQ(v[2], 0.0f);
  EXPECT_FLOAT_EQ(v[3], expect(0.5));
  EXPECT_LT(v[0], 0.0f);
  EXPECT_EQ(z.pixelFormat(), kDepthGL);  // the caller owns the format
  // Orthographic: only exactly 1.0 is no depth; -1 / ((v - a) * (b - a) * (f - n) + n).
  Timage o(3, 1, kDepthGL);
  float* w = static_cast<float*>(o.pixels());
  w[0] = 1.0f, w[1] = 0.5f, w[2] = 0.99999f;
  ASSERT_TRUE(o.glToIffDepthBuffer(true, 2.0f, 10.0f, 0.0, 1.0));
  EXPECT_EQ(w[0], 0.0f);
  EXPECT_FLOAT_EQ(w[1], -1.0f / (0.5f * 8.0f + 2.0f));
  EXPECT_LT(w[2], 0.0f);

  Timage iff(2, 1, kDepthIFF), rgba(2, 1, kRGBA8);
  std::memset(iff.pixels(), 0x3F, 8);
  EXPECT_TRUE(iff.glToIffDepthBuffer(false, 1, 2, 0, 1));
  EXPECT_EQ(static_cast<uint8_t*>(iff.pixels())[0], 0x3F);
  EXPECT_FALSE(rgba.glToIffDepthBuffer(false, 1, 2, 0, 1));
}

TEST(TtileList, RectanglesByValue) {
  TtileList list;
  TportRect a(0, 0, 10, 10), b(10, 0, 20, 10), c(0, 10, 10, 20);
  list.addLast(a);
  list.addLast(c);
  list.insert(b, 1);
  ASSERT_EQ(list.length(), 3);
  EXPECT_EQ(list[1], b);
  EXPECT_EQ(list.last(), c);
  unsigned index = 99;
  EXPECT_TRUE(list.find(c, index));
  EXPECT_EQ(index, 2u);
  EXPECT_FALSE(list.find(TportRect(1, 2, 3, 4)));
  list.remove(b);
  EXPECT_EQ(list.length(), 2);

  TtileList other;
  EXPECT_EQ(other.copy(list), 2);
  EXPECT_EQ(other.catenate(list, 1, 5), 1);
  EXPECT_EQ(other.length(), 3);
  EXPECT_EQ(other[2], c);
  TtileList none;
  EXPECT_EQ(other.catenate(none), 0);
  EXPECT_EQ(other.length(), 3);
  EXPECT_EQ(other.copy(none), 0);
  EXPECT_EQ(other.length(), 0);

  TportRect rects[2] = {b, b};
  other.addLast(rects, 2);
  other.swap(list);
  EXPECT_EQ(list.length(), 2);
  EXPECT_EQ(list[0], b);
  EXPECT_EQ(other[1], c);
  TtileList filled;
  filled.createAndSet(a, 4, 0);
  EXPECT_EQ(filled.length(), 4);
  EXPECT_EQ(filled[3], a);
}

TEST(TdataImage, ATypedValueOfTheHost) {
  Timage picture(2, 2, kRGBA8), depth(2, 2, kDepthIFF);
  TdataImage one(&picture, &depth), two(&picture, &depth);
  one.tileList().addLast(TportRect(0, 0, 1, 1));
  EXPECT_TRUE(one == two);  // the tile lists play no part
  two.setDepthMap(nullptr);
  EXPECT_TRUE(one != two);

  TdataImage copy(one);
  EXPECT_EQ(copy.image(), &picture);
  EXPECT_EQ(copy.tileList().length(), 1);
  TdataImage assigned;
  assigned = one;
  EXPECT_EQ(assigned.depthMap(), &depth);

  // Through the host's handles and metaclasses.
  EXPECT_STREQ(TdataImageTmeta.name(), "imageData");
  EXPECT_EQ(TdataImageTmeta.tag(), 0x494D4147u);
  EXPECT_TRUE(TdataImageTmeta.istype(&TdataLetterTmeta));
  EXPECT_EQ(one.typeof(), &TdataImageTmeta);
  EXPECT_EQ(one.apiType().type(), 636);
  EXPECT_STREQ(one.apiTypeString(), "kImageData");
  EXPECT_TRUE(KObjBase::isA(636, 567));
  EXPECT_TRUE(KObjBase::isA(636, 1));
  TdataImage* made = TdataImage::construct(&TdataImageTmeta);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->image(), nullptr);
  Tdata handle(made);  // owns it now
  TdataImage target;
  target = handle;
  EXPECT_EQ(target.image(), nullptr);
  Tdata fromOne(one.copy());
  target = fromOne;
  EXPECT_EQ(target.image(), &picture);
  EXPECT_TRUE(one == fromOne);
  EXPECT_FALSE(one == Tdata::directValue(5));
  EXPECT_FALSE(one != Tdata::directValue(5));  // another type answers false both ways
  EXPECT_EQ(TdataImage::construct(nullptr), nullptr);
  EXPECT_EQ(TdataImage::construct(&TdataLetterTmeta), nullptr);

  std::vector<uint8_t> bytes;
  Tstring text;
  EXPECT_EQ(one.writeBinary(bytes), -1);
  EXPECT_EQ(one.writeASCII(text), -1);
  EXPECT_EQ(one.readASCII("x"), -1);
  EXPECT_EQ(one.readBinary(nullptr, 0), -1);

  struct Capture : TdebugOutput {
    std::string text;
    void printf(const char* format, ...) override {
      char b[256];
      va_list a;
      va_start(a, format);
      std::vsnprintf(b, sizeof b, format, a);
      va_end(a);
      text += b;
    }
    void endEntry() override { text += "|"; }
  } out;
  one.debug(out, 1);
  EXPECT_EQ(out.text.rfind("TdataImage 0x", 0), 0u);
  EXPECT_EQ(out.text.back(), '|');
}
