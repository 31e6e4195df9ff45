// Render outputs: frame names by template, the picture and its mask and
// depth side files by format, the chunks stamped at close read back from the
// bytes, and creates that fail leaving nothing behind.
#include <gtest/gtest.h>

#include "kelpimage/image/tpsdtexturefile.h"

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/il/il.h"
#include "kelpimage/naming/tbatchglobals.h"
#include "kelpimage/naming/timagefileio.h"
#include "kelpimage/naming/tprojectmgr.h"
#include "testutil.h"

using namespace kelptest;

namespace {

// The output folder for one test.
struct Outputs {
  TempDir dir;
  Outputs() { TprojectMgrBase::setOutputDirectory(Tstring(dir.path().string())); }
  ~Outputs() { TprojectMgrBase::setOutputDirectory(Tstring()); }
  std::string file(const std::string& name) const { return dir.file(name); }
};

// The payload of the first chunk `tag` in a file's bytes, or "?".
std::string chunk(const std::vector<uint8_t>& b, const char* tag) {
  for (size_t at = 0; at + 8 <= b.size(); ++at)
    if (std::memcmp(&b[at], tag, 4) == 0) {
      size_t size = be32(b, at + 4);
      if (at + 8 + size <= b.size()) return std::string(b.begin() + long(at) + 8, b.begin() + long(at + 8 + size));
    }
  return "?";
}

std::string floats(float a, float b) {
  float pair[2] = {a, b};
  return std::string(reinterpret_cast<const char*>(pair), 8);
}

std::vector<uint8_t> pixels(int w, int h) {
  std::vector<uint8_t> px(size_t(w) * size_t(h) * 4);
  for (size_t i = 0; i < px.size(); ++i) px[i] = uint8_t(i * 3);
  return px;
}

}  // namespace

TEST(TimageFN, NamesByTemplate) {
  TimageFileIO io;
  auto name = [&](int t, TimageType type) { return io.makeName(TimageFN(t, Tstring("base"), 7), type).str(); };
  auto peek = [&](int t, TimageType type) {
    return TimageFileIO::makeQpeekName(TimageFN(t, Tstring("base"), 7), type).str();
  };
  EXPECT_EQ(name(0, kIffImage), "base");
  EXPECT_EQ(name(1, kIffImage), "base.7");
  EXPECT_EQ(name(2, kJpgImage), "base.jpg.7");
  EXPECT_EQ(name(3, kTifImage), "base.7.tif");
  EXPECT_EQ(name(4, kIffImage), "base.0007");
  EXPECT_EQ(name(5, kSgimvImage), "base.mv.0007");
  EXPECT_EQ(name(6, kPngImage), "base.0007.png");
  EXPECT_EQ(peek(1, kIffImage), "base");
  EXPECT_EQ(peek(3, kTifImage), "base.@.tif");
  EXPECT_EQ(peek(6, TimageType(99)), "base.####.iff");
  EXPECT_EQ(io.makeName(TimageFN(4, Tstring(), 7), kIffImage).str(), "");
  EXPECT_EQ(TimageFileIO::makeQpeekName(TimageFN(4, Tstring(), 7), kIffImage).str(), "");
  EXPECT_EQ(TimageFileIO::formatExtension(kSiImage).str(), "pic");
}

// IFF holds alpha and depth itself: one file, with the render's chunks.
TEST(TimageFileIO, IffKeepsEverythingWithItsChunks) {
  Outputs out;
  TbatchGlobals::setCommandLine(Tstring("render -s 7 scene.ma"));
  TimageFileIO io;
  const int w = 8, h = 4;
  std::vector<uint8_t> px = pixels(w, h);
  std::vector<float> z(size_t(w) * h, -0.5f);
  ASSERT_TRUE(
      io.create(TimageFN(4, Tstring("beauty"), 7), w, h, kIffImage, TdataType(kColorData | kAlphaData | kDepthData)));
  EXPECT_TRUE(io.writeClippingPlanes(0.1f, 1000.0f));
  EXPECT_TRUE(io.writeEyeWidthHeight(1.5f, 0.75f));
  EXPECT_TRUE(io.writeImage(px.data(), z.data()));
  ASSERT_TRUE(io.close());
  TbatchGlobals::setCommandLine(Tstring());
  EXPECT_FALSE(std::filesystem::exists(out.file("mask")));
  EXPECT_FALSE(std::filesystem::exists(out.file("depth")));
  std::vector<uint8_t> b = readBytes(out.file("beauty.0007"));
  EXPECT_EQ(chunk(b, "CLPZ"), floats(0.1f, 1000.0f));
  EXPECT_EQ(chunk(b, "ESXY"), floats(1.5f, 0.75f));
  EXPECT_EQ(chunk(b, "HIST"), "render -s 7 scene.ma");
  EXPECT_EQ(chunk(b, "VERS"), std::string("Kelp cut ") + gCutIdentifier);
  ILimage* im = ILopen(out.file("beauty.0007").c_str(), "r");
  ASSERT_NE(im, nullptr);
  EXPECT_EQ(ILgettype(im), int(ILT_COLOR | ILT_ALPHA | ILT_DEPTH));
  std::vector<uint8_t> back(px.size());
  std::vector<float> zback(z.size());
  EXPECT_EQ(ILload(im, back.data(), zback.data()), 0);
  ILclose(im);
  EXPECT_EQ(back, px);
  EXPECT_EQ(zback, z);
}

// JPEG has neither alpha nor depth: the picture carries colour alone, and
// IFF side files in "mask" and "depth" carry the rest.
TEST(TimageFileIO, SideFilesForWhatTheFormatLacks) {
  Reports reports;
  Outputs out;
  TimageFileIO io;
  const int w = 6, h = 3;
  std::vector<uint8_t> px = pixels(w, h);
  std::vector<float> z(size_t(w) * h);
  for (size_t i = 0; i < z.size(); ++i) z[i] = -1.0f / float(i + 2);
  ASSERT_TRUE(
      io.create(TimageFN(6, Tstring("shot"), 12), w, h, kTgaImage, TdataType(kColorData | kAlphaData | kDepthData)))
      << reports.text;
  io.writeClippingPlanes(1.0f, 50.0f);
  io.writeImage(px.data(), z.data());
  ASSERT_TRUE(io.close()) << reports.text;
  EXPECT_TRUE(std::filesystem::exists(out.file("shot.0012.tga")));
  std::string mask = out.file("mask/shot_mask.0012.iff"), depth = out.file("depth/shot_depth.0012.iff");
  ILimage* m = ILopen(mask.c_str(), "r");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(ILgettype(m), int(ILT_ALPHA));
  ILclose(m);
  ILimage* d = ILopen(depth.c_str(), "r");
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(ILgettype(d), int(ILT_DEPTH));
  EXPECT_EQ(d->compress, 0u);
  std::vector<float> zback(z.size());
  EXPECT_EQ(ILload(d, nullptr, zback.data()), 0);
  ILclose(d);
  EXPECT_EQ(zback, z);
  std::vector<uint8_t> db = readBytes(depth);
  EXPECT_EQ(chunk(db, "CLPZ"), floats(1.0f, 50.0f));
  EXPECT_EQ(chunk(db, "VERS"), std::string("Kelp cut ") + gCutIdentifier);
  EXPECT_EQ(chunk(readBytes(mask), "VERS"), "?");  // the mask file is not stamped
}

// A format no plug-in writes, or a side folder that cannot be made, fails
// at create with nothing made; a frame whose conversion fails fails at close.
TEST(TimageFileIO, FailuresLeaveNothingBehind) {
  Reports reports;
  Outputs out;
  TimageFileIO io;
  EXPECT_FALSE(io.create(TimageFN(4, Tstring("a"), 1), 4, 4, kQlxImage, TdataType(kColorData | kAlphaData)));
  EXPECT_NE(reports.text.find("Unknown image type: qlx"), std::string::npos) << reports.text;
  EXPECT_TRUE(std::filesystem::is_empty(out.dir.path()));

  TprojectMgrBase::setOutputDirectory(Tstring(out.file("missing")));  // the depth folder's parent is missing
  EXPECT_FALSE(io.create(TimageFN(4, Tstring("a"), 1), 4, 4, kJpgImage, TdataType(kColorData | kDepthData)));
  EXPECT_TRUE(std::filesystem::is_empty(out.dir.path()));

  TprojectMgrBase::setOutputDirectory(Tstring(out.dir.path().string()));
  std::vector<uint8_t> px = pixels(4, 4);
  ASSERT_TRUE(io.create(TimageFN(4, Tstring("doc"), 1), 4, 4, kPsdImage, kColorData));
  io.writeImage(px.data(), nullptr);
  reports.text.clear();
  EXPECT_TRUE(io.close()) << reports.text;  // Photoshop documents go out by the library's own road
  EXPECT_TRUE(TpsdTextureFile::isFilePsd(Tstring(out.file("doc.0001").c_str())));
}
