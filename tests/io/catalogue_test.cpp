// The catalogue of formats: every plug-in's format and the library's own
// found once, by key, extension and bytes.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "kelpimage/io/tformatcatalogue.h"

namespace {

TEST(TformatCatalogue, ListsEveryFormatOnce) {
  std::set<std::string> keys;
  for (const TformatInfo& f : TformatCatalogue::formats()) {
    EXPECT_TRUE(keys.insert(f.key).second) << f.key;
    EXPECT_FALSE(f.extensions.empty()) << f.key;
  }
  for (const char* key : {"kelp", "sgi", "psd", "png", "jpg", "tif", "gif", "exr", "webp", "tga", "bmp", "hdr", "pnm"})
    EXPECT_TRUE(keys.count(key)) << key;
}

// Extensions in any case choose a format; bytes tell it whatever the name.
TEST(TformatCatalogue, FindsByNameAndByBytes) {
  TformatInfo info;
  ASSERT_TRUE(TformatCatalogue::forName("/a.b/shot.0001.TIF", info));
  EXPECT_EQ(info.key, "tif");
  EXPECT_FALSE(TformatCatalogue::forName("/a.png/shot", info));
  EXPECT_FALSE(TformatCatalogue::forName("shot.", info));
  const uint8_t png[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  EXPECT_EQ(TformatCatalogue::identifyKey(png, sizeof png), "png");
  const uint8_t iff[] = {'F', 'O', 'R', '4', 0, 0, 0, 8, 'C', 'I', 'M', 'G'};
  EXPECT_EQ(TformatCatalogue::identifyKey(iff, sizeof iff), "kelp");
  const uint8_t scene[] = {'F', 'O', 'R', '4', 0, 0, 0, 8, 'K', 'e', 'l', 'p'};
  EXPECT_EQ(TformatCatalogue::identifyKey(scene, sizeof scene), "");
  EXPECT_EQ(TformatCatalogue::identifyKey(png, 3), "");
}

// The sample type a format is given is the nearest it holds.
TEST(TformatCatalogue, NearestWrittenKeepsTheMost) {
  TformatInfo exr, jpg, tif;
  ASSERT_TRUE(TformatCatalogue::find("exr", exr) && TformatCatalogue::find("jpg", jpg) &&
              TformatCatalogue::find("tif", tif));
  EXPECT_EQ(exr.nearestWritten(TsampleType::kUint16), TsampleType::kFloat);
  EXPECT_EQ(exr.nearestWritten(TsampleType::kHalf), TsampleType::kHalf);
  EXPECT_EQ(jpg.nearestWritten(TsampleType::kFloat), TsampleType::kUint8);
  EXPECT_EQ(tif.nearestWritten(TsampleType::kHalf), TsampleType::kFloat);
  EXPECT_EQ(tif.nearestWritten(TsampleType::kUint16), TsampleType::kUint16);
}

}  // namespace
