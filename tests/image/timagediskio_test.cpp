// The disk class tells every format through the plug-ins, reads IFF,
// SGI and converted pictures into a Timage, and writes IFF or, through a
// temporary IFF file, another format.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/image/timagediskio.h"
#include "kelpimage/sgi/sgi.h"
#include "testutil.h"

using namespace kelptest;

namespace {

uint8_t greenAt(const Timage& image, int x, int y) {
  return static_cast<const uint8_t*>(image.pixels(uint16_t(x), uint16_t(y)))[1];
}
}  // namespace

TEST(TimageDiskIO, ReadsEveryKindItCanTell) {
  GreyPlugin greyPlugin;
  Reports reports;
  TempDir dir;
  // An IFF picture whose green is 10 x + y.
  std::string iff = dir.file("a.iff");
  ILimage* im = ILopen(iff.c_str(), "w");
  ILsetsize(im, 6, 4);
  ILsettype(im, int32_t(ILT_COLOR | ILT_ALPHA));
  std::vector<uint8_t> px(6 * 4 * 4, 200);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 6; ++x) px[size_t(y * 6 + x) * 4 + 1] = uint8_t(10 * x + y);
  ASSERT_EQ(ILsave(im, px.data(), nullptr, 0), 0);
  ILclose(im);

  TimageDiskIO d;
  EXPECT_EQ(d.getImageType(iff.c_str()), "kelp");
  ASSERT_EQ(d.identifyAndOpen(iff.c_str()), 0);
  EXPECT_TRUE(d.alpha());
  unsigned short w = 0, h = 0;
  unsigned char bits = 0;
  ASSERT_EQ(d.getDimensions(w, h, bits), 0);
  EXPECT_EQ(w, 6);
  EXPECT_EQ(h, 4);
  EXPECT_EQ(bits, 32);
  EXPECT_EQ(d.size().width(), 6);
  EXPECT_EQ(d.identifyAndOpen(iff.c_str()), -1);  // one picture at a time
  Timage image;
  ASSERT_EQ(d.readImage(image), 0);
  EXPECT_EQ(image.width(), 6);
  EXPECT_EQ(greenAt(image, 5, 3), 53);
  EXPECT_EQ(d.close(), 0);

  // An SGI picture, read whole and by rows.
  std::string sgi = dir.file("a.sgi");
  IMAGE* s = iopen(sgi.c_str(), "w", SGI_RLE | 1, 3, 3, 2, 3);
  std::vector<uint16_t> row(3);
  for (unsigned z = 0; z < 3; ++z)
    for (unsigned y = 0; y < 2; ++y) {
      for (unsigned x = 0; x < 3; ++x) row[x] = uint16_t(100 + 10 * z + 3 * y + x);
      putrow(s, row.data(), y, z);
    }
  ASSERT_EQ(iclose(s), 0);
  ASSERT_EQ(d.identifyAndOpen(sgi.c_str()), 0);
  EXPECT_FALSE(d.alpha());
  ASSERT_EQ(d.getDimensions(w, h, bits), 0);
  EXPECT_EQ(bits, 24);
  ASSERT_EQ(d.readImage(image), 0);
  EXPECT_EQ(greenAt(image, 2, 1), 100 + 10 + 3 + 2);
  std::vector<uint8_t> rows(3 * 2 * 4);
  EXPECT_EQ(d.readSGI(rows.data(), 3, 0, 2), 0);
  EXPECT_EQ(rows[(1 * 3 + 2) * 4 + 1], 100 + 10 + 3 + 2);
  EXPECT_EQ(d.close(), 0);

  // Another format goes through a temporary IFF file that close removes.
  std::string grey = dir.file("a.grey");
  writeBytes(grey, {'G', 'R', 'E', 'Y', 2, 2, 1, 2, 3, 4});
  ASSERT_EQ(d.identifyAndOpen(grey.c_str()), 0);
  ASSERT_EQ(d.readImage(image), 0);
  EXPECT_EQ(greenAt(image, 1, 1), 4);
  EXPECT_EQ(d.close(), 0);

  // What nothing claims does not open.
  writeBytes(dir.file("junk"), {1, 2, 3, 4, 5});
  EXPECT_EQ(d.identifyAndOpen(dir.file("junk").c_str()), -1);
  EXPECT_FALSE(d.isOpen());
}

TEST(TimageDiskIO, WritesIffAndOtherFormats) {
  GreyPlugin greyPlugin;
  Reports reports;
  TempDir dir;
  Timage image(4, 3, kRGBA8);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      auto* p = static_cast<uint8_t*>(image.pixels(uint16_t(x), uint16_t(y)));
      p[0] = p[1] = p[2] = uint8_t(20 * x + y), p[3] = 255;
    }

  TimageDiskIO w;
  ASSERT_EQ(w.create(dir.file("out.iff").c_str(), 4, 3, TiffImageFile::kRLE, nullptr), 0);
  ASSERT_EQ(w.writeImage(image), 0);
  ASSERT_EQ(w.close(), 0);
  TimageDiskIO r;
  ASSERT_EQ(r.identifyAndOpen(dir.file("out.iff").c_str()), 0);
  Timage back;
  ASSERT_EQ(r.readImage(back), 0);
  EXPECT_EQ(greenAt(back, 3, 2), 62);
  r.close();

  ASSERT_EQ(w.create(dir.file("out.grey").c_str(), 4, 3, TiffImageFile::kRLE, "grey"), 0);
  ASSERT_EQ(w.writeImage(image), 0);
  ASSERT_EQ(w.close(), 0);
  auto bytes = readBytes(dir.file("out.grey"));
  ASSERT_EQ(bytes.size(), 6u + 12u);
  EXPECT_EQ(bytes[6 + 2 * 4 + 3], 62);
  // No temporary file is left where conversions work.
  for (const auto& e : std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
    EXPECT_EQ(e.path().filename().string().find("kelp" + std::to_string(getpid())), std::string::npos);

  // A format the provider cannot write fails at close, with its report.
  ASSERT_EQ(w.create(dir.file("out.nope").c_str(), 4, 3, TiffImageFile::kRLE, "nope"), 0);
  w.writeImage(image);
  EXPECT_EQ(w.close(), -1);
  EXPECT_NE(reports.text.find(Tstring(TstringIdNumber(622)).str()), std::string::npos) << reports.text;
  // The picture is not lost: its temporary IFF stays, the caller's to remove.
  std::vector<std::filesystem::path> kept;
  for (const auto& e : std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
    if (e.path().filename().string().rfind("kelp" + std::to_string(getpid()), 0) == 0) kept.push_back(e.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(std::filesystem::file_size(kept[0]), std::filesystem::file_size(dir.file("out.iff")));
  std::filesystem::remove(kept[0]);
}
