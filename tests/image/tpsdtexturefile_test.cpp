#include "kelpimage/image/tpsdtexturefile.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <filesystem>
#include <memory>

#include "kelpimage/image/timagefile.h"
#include "kelpimage/photoshop/tpsdwarning.h"
#include "testutil.h"

namespace {

std::string data(const char* name) { return std::string(KELP_TEST_SOURCE_DIR) + "/photoshop/data/" + name; }

}  // namespace

TEST(TpsdTextureFile, PixelReadersOrdersFillsAndDepths) {
  TpsdTextureFile rgb;
  ASSERT_EQ(rgb.openWithoutCache(TfilePath(data("2layers.psd").c_str()), false), 0);
  EXPECT_EQ(rgb.resolutionX(), 256);  // set by open only
  uint8_t* pixels = nullptr;
  int channels = 0, w = 0, h = 0, bytes = 0;
  ASSERT_EQ(rgb.readPixels(pixels, channels, w, h, bytes), 0);
  std::unique_ptr<uint8_t[]> owned(pixels);
  EXPECT_EQ(channels, 4);
  EXPECT_EQ(w, 101);
  EXPECT_EQ(bytes, 1);
  for (int i = 0; i < w * h; ++i) ASSERT_EQ(pixels[i * 4 + 3], 255) << "a 3-channel document's alpha is the fill";
  TpixelMap map;
  ASSERT_EQ(rgb.readPixelMap(map), 0);
  EXPECT_EQ(map.channels(), 4);
  // The map keeps the bottom row first, blue, green, red, alpha.
  const Tpixel32* bottomLeft = map.pixelPointer(0, 0);
  const uint8_t* lastRow = pixels + size_t(h - 1) * size_t(w) * 4;
  EXPECT_EQ(bottomLeft->fChannels.fRed, lastRow[0]);
  EXPECT_EQ(bottomLeft->fChannels.fBlue, lastRow[2]);
  // A layer: document-sized, its record's channel count.
  ASSERT_EQ(rgb.readPixels8Layer("#nothing", pixels, channels, w, h), -1);
  EXPECT_EQ(rgb.close(), 0);

  // A 16-bit document: 8-bit readers give the high byte.
  TpsdTextureFile deep;
  ASSERT_EQ(deep.openWithoutCache(TfilePath(data("16bit5x5.psd").c_str()), false), 0);
  uint16_t* wide = nullptr;
  ASSERT_EQ(deep.readPixels16(Tstring(), wide, channels, w, h), 0);
  std::unique_ptr<uint16_t[]> ownedWide(wide);
  ASSERT_EQ(deep.readPixels8(Tstring(), pixels, channels, w, h), 0);
  std::unique_ptr<uint8_t[]> narrow(pixels);
  for (int i = 0; i < w * h * 4; ++i) ASSERT_EQ(narrow[size_t(i)], wide[i] >> 8);

  // Alpha channels by index.
  TpsdTextureFile alpha;
  ASSERT_EQ(alpha.openWithoutCache(TfilePath(data("colormodes_4x4_8bit_rgba.psd").c_str()), false), 0);
  ASSERT_EQ(alpha.readAlphaChannel8(0, pixels, w, h), 0);
  std::unique_ptr<uint8_t[]> a(pixels);
  EXPECT_EQ(w * h, 16);
  EXPECT_EQ(alpha.readAlphaChannel8(1, pixels, w, h), -1);
  TstringArray names;
  ASSERT_EQ(alpha.alphaList(names), 0);
  EXPECT_EQ(names[0], "Alpha 1");
}

TEST(TpsdTextureFile, TheCacheKeepsADocumentUntilItsFileChanges) {
  kelptest::TempDir dir;
  std::string copy = dir.file("doc.psd");
  std::filesystem::copy_file(data("group.psd"), copy);
  TpsdTextureFile first, second;
  ASSERT_EQ(first.open(TfilePath(copy.c_str()), false), 0);
  ASSERT_EQ(second.open(TfilePath(copy.c_str()), false), 0);
  EXPECT_EQ(first.document(), second.document());
  EXPECT_EQ(first.resolutionX(), 100);
  first.close();
  second.close();
  struct utimbuf later {
    1000000000, 1000000000
  };
  ASSERT_EQ(utime(copy.c_str(), &later), 0);
  TpsdTextureFile third;
  ASSERT_EQ(third.open(TfilePath(copy.c_str()), false), 0);
  TpsdTextureFile fourth;
  ASSERT_EQ(fourth.open(TfilePath(copy.c_str()), false), 0);
  EXPECT_EQ(third.document(), fourth.document());
  TstringArray sets;
  ASSERT_EQ(third.layerSetNames(sets), 0);
  EXPECT_EQ(sets[0], "Group 1");
  uint8_t* pixels = nullptr;
  int channels = 0, w = 0, h = 0, bytes = 0;
  ASSERT_EQ(third.readPixels(Tstring("Group 1"), pixels, channels, w, h, bytes), 0);
  delete[] pixels;
  EXPECT_EQ(third.open(TfilePath(dir.file("missing.psd").c_str()), false), -1);
  TpsdFileCache::theCache().clear();
}

// A document replaced on disk while a holder reads it: the next open reads
// the new file, and the holder's document stays whole until it lets go (the
// sanitizer build sees that nothing freed is touched).
TEST(TpsdTextureFile, AReplacedDocumentStaysWholeForItsHolder) {
  kelptest::TempDir dir;
  std::string copy = dir.file("doc.psd");
  std::filesystem::copy_file(data("group.psd"), copy);
  TpsdTextureFile holder;
  ASSERT_EQ(holder.open(TfilePath(copy.c_str()), false), 0);
  zkPhotoshop::TphotoshopFile* held = holder.document();
  std::filesystem::copy_file(data("2layers.psd"), copy, std::filesystem::copy_options::overwrite_existing);
  struct utimbuf later {
    1000000000, 1000000000
  };
  ASSERT_EQ(utime(copy.c_str(), &later), 0);
  TpsdTextureFile fresh;
  ASSERT_EQ(fresh.open(TfilePath(copy.c_str()), false), 0);
  EXPECT_NE(fresh.document(), held);
  EXPECT_EQ(fresh.resolutionX(), 101);
  TpsdFileCache::theCache().clear();
  // The holder's document is the old one, whole: what it read stays; what
  // it reads now comes from the new bytes, or fails cleanly.
  EXPECT_EQ(holder.document(), held);
  EXPECT_EQ(held->imageWidth(), 100u);
  TstringArray sets;
  holder.layerSetNames(sets);
  EXPECT_EQ(holder.close(), 0);
}

TEST(TpsdTextureFile, WritesALayeredDocumentOfAPicture) {
  kelptest::TempDir dir;
  TpixelMap map(3, 2);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) map.pixelPointer(x, y)->fValue = 0xFF000000u | uint32_t(x * 40 + y * 7) << 16;
  TpsdTextureFile out;
  ASSERT_EQ(out.create(TfilePath(dir.file("out.psd").c_str()), 3, 2), 0);
  ASSERT_EQ(out.setCompositeImage(map), 0);
  ASSERT_EQ(out.saveBackgroundImage(map, nullptr), 0);
  ASSERT_EQ(out.close(), 0);
  TpsdTextureFile in;
  ASSERT_EQ(in.openWithoutCache(TfilePath(dir.file("out.psd").c_str()), false), 0);
  TpixelMap back;
  ASSERT_EQ(in.readPixelMap(back), 0);
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 3; ++x) EXPECT_EQ(back.pixelPointer(x, y)->fChannels.fRed, x * 40 + y * 7);
  TstringArray names;
  ASSERT_EQ(in.layerNames(names), 0);
  EXPECT_EQ(names[0], "Background");
  // A failed save is a failed close: the target's folder is missing.
  TpsdTextureFile nowhere;
  ASSERT_EQ(nowhere.create(TfilePath(dir.file("missing/out.psd").c_str()), 3, 2), 0);
  nowhere.setCompositeImage(map);
  EXPECT_EQ(nowhere.close(), -1);
}

TEST(TpsdTextureFile, TheFrontDoorReadsTheFlattenedImage) {
  for (const char* name : {"2layers.psd", "16bit5x5.psd", "colormodes_4x4_8bit_grayscale.psd", "mask.psd",
                           "colormodes_4x4_8bit_rgba.psd"}) {
    TimageFile file;
    TpixelMap map;
    ASSERT_EQ(file.identifyAndOpen(Tstring(data(name).c_str())), 0) << name;
    ASSERT_EQ(file.readPixelMap(map), 0) << name;
    file.close();
    TpsdTextureFile psd;
    ASSERT_EQ(psd.openWithoutCache(TfilePath(data(name).c_str()), false), 0);
    uint8_t* pixels = nullptr;
    int channels = 0, w = 0, h = 0;
    ASSERT_EQ(psd.readPixels8(Tstring(), pixels, channels, w, h), 0);
    std::unique_ptr<uint8_t[]> owned(pixels);
    ASSERT_EQ(map.width(), w);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const uint8_t* p = pixels + (size_t(y) * size_t(w) + size_t(x)) * 4;
        const Tpixel32* q = map.pixelPointer(x, h - 1 - y);  // the map: the bottom row first
        ASSERT_EQ(q->fChannels.fRed, p[0]) << name << " " << x << "," << y;
        ASSERT_EQ(q->fChannels.fGreen, p[1]) << name;
        ASSERT_EQ(q->fChannels.fBlue, p[2]) << name;
      }
  }
  // The byte order switch frees what it replaces (the sanitizer build sees to that).
  auto* rgba = new uint8_t[8]{1, 2, 3, 4, 5, 6, 7, 8};
  TpsdTextureFile::rgbaSwitch(rgba, 8, 1);
  EXPECT_EQ(rgba[0], 3);
  EXPECT_EQ(rgba[6], 5);
  delete[] rgba;
}
