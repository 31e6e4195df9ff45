// The file classes share an open picture among their copies: the last copy
// to go closes it, once; a copy that closes it closes it for all; moves hand
// it over; vectors of them grow and shrink. The sanitizer build sees any
// second close; the count of open descriptors sees any that is missed.
#include <gtest/gtest.h>

#include <dirent.h>

#include <utility>
#include <vector>

#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/image/timagediskio.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/sgi/sgi.h"
#include "testutil.h"

using namespace kelptest;

namespace {
int openDescriptors() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d)) ++n;
    closedir(d);
  }
  return n;
}

std::string writeIff(const TempDir& dir) {
  std::string name = dir.file("a.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 16, 8);
  std::vector<uint8_t> px(16 * 8 * 4, 77);
  EXPECT_EQ(ILsave(im, px.data(), nullptr, 0), 0);
  ILclose(im);
  return name;
}

std::string writeSgi(const TempDir& dir) {
  std::string name = dir.file("a.sgi");
  IMAGE* im = iopen(name.c_str(), "w", SGI_RLE | 1, 3, 4, 2, 3);
  std::vector<uint16_t> row(4, 9);
  for (unsigned z = 0; z < 3; ++z)
    for (unsigned y = 0; y < 2; ++y) putrow(im, row.data(), y, z);
  iclose(im);
  return name;
}
}  // namespace

TEST(Ownership, TiffImageFileCopiesMovesAndVectors) {
  TempDir dir;
  std::string name = writeIff(dir);
  int base = openDescriptors();
  {
    TiffImageFile a(name.c_str(), "r");
    ASSERT_TRUE(a.isActive());
    { TiffImageFile b = a; }  // a copy goes; the file stays open for `a`
    ASSERT_TRUE(a.isActive());
    std::vector<uint8_t> px(16 * 8 * 4);
    ASSERT_EQ(a.load(px.data(), nullptr), 0);
    EXPECT_EQ(px[5], 77);

    TiffImageFile moved(std::move(a));
    EXPECT_FALSE(a.isActive());
    EXPECT_TRUE(moved.isActive());
    TiffImageFile other(name.c_str(), "r");
    other = moved;  // what `other` held is closed, the shared file is kept
    EXPECT_EQ(openDescriptors(), base + 1);
    EXPECT_EQ(other.close(), 0);  // closed for every copy
    EXPECT_FALSE(moved.isActive());
    EXPECT_EQ(moved.close(), -1);
  }
  EXPECT_EQ(openDescriptors(), base);

  {
    std::vector<TiffImageFile> files;
    for (int i = 0; i < 20; ++i) files.emplace_back(name.c_str(), "r");  // grows, moving what it holds
    for (const auto& f : files) EXPECT_TRUE(f.isActive());
    EXPECT_EQ(openDescriptors(), base + 20);
    files.erase(files.begin(), files.begin() + 5);
    EXPECT_EQ(openDescriptors(), base + 15);
    auto copies = files;  // shares, opens nothing
    EXPECT_EQ(openDescriptors(), base + 15);
  }
  EXPECT_EQ(openDescriptors(), base);
}

TEST(Ownership, TimageFileAndTimageDiskIO) {
  TempDir dir;
  std::string iff = writeIff(dir), sgi = writeSgi(dir);
  int base = openDescriptors();
  {
    std::vector<TimageFile> files;
    for (int i = 0; i < 10; ++i) {
      files.emplace_back();
      ASSERT_EQ(files.back().identifyAndOpen((i % 2 ? iff : sgi).c_str()), 0);
    }
    TimageFile copy = files[1];
    files.clear();
    // The copy still reads its IFF picture.
    TpixelMap map;
    EXPECT_EQ(copy.readPixelMap(map), 0);
    EXPECT_EQ(map.width(), 16);
    TimageFile sgiCopy;
    {
      TimageFile s;
      ASSERT_EQ(s.identifyAndOpen(sgi.c_str()), 0);
      sgiCopy = s;
    }
    EXPECT_EQ(sgiCopy.readPixelMap(map), 0);
    EXPECT_EQ(map.width(), 4);
    TimageFile moved = std::move(sgiCopy);
    EXPECT_EQ(moved.close(), 0);
  }
  EXPECT_EQ(openDescriptors(), base);
  {
    // (The disk class tells formats through the plug-ins; IFF it opens as told.)
    std::vector<TimageDiskIO> files(6);
    for (auto& f : files) ASSERT_EQ(f.open(iff.c_str(), true), 0);
    TimageDiskIO kept = files[0];
    files.resize(1);
    files.emplace_back(std::move(kept));
    EXPECT_EQ(openDescriptors(), base + 1);  // files[0] and the copy share one open file
    Timage image;
    EXPECT_EQ(files.back().readImage(image), 0);
    EXPECT_EQ(image.width(), 16);
    EXPECT_EQ(files.back().close(), 0);
    EXPECT_FALSE(files.back().isOpen());
  }
  EXPECT_EQ(openDescriptors(), base);
}
