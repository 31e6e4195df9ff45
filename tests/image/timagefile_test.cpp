// The front door: identification by bytes, IFF and SGI reads, the
// temporary-file road for other formats, reports and their switch, and two
// threads reading at once.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/image/imagebuffer.h"
#include "kelpimage/image/timagediskio.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/image/tpsdtexturefile.h"
#include "kelpimage/sgi/sgi.h"
#include "testutil.h"

using namespace kelptest;

namespace {
struct ReportLines : TerrorHandler {
  std::vector<std::string> lines;
  ReportLines() { theErrorHandler = this; }
  ~ReportLines() override { theErrorHandler = nullptr; }
  void reportError(const Tstring& m) override { lines.push_back(m.str()); }
  bool has(const std::string& text) const {
    for (const auto& l : lines)
      if (l.find(text) != std::string::npos) return true;
    return false;
  }
};

void writeIff(const std::string& name, int w, int h, uint32_t type = 3, int bytes = 1, uint8_t value = 100,
              bool topdown = false) {
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, w, h);
  ILsettype(im, int32_t(type));
  ILsetbpp(im, bytes);
  ILctrl(im, ILC_TOPDOWN, topdown);
  std::vector<uint8_t> px(size_t(w) * h * 4 * size_t(bytes), value);
  std::vector<float> z(size_t(w) * h, -0.5f);
  ASSERT_EQ(ILsave(im, px.data(), z.data(), 0), 0);
  ILclose(im);
}

void writeSgi(const std::string& name, unsigned w, unsigned h, unsigned channels) {
  IMAGE* im = iopen(name.c_str(), "w", SGI_RLE | 1, 3, w, h, channels);
  std::vector<uint16_t> row(w);
  for (unsigned z = 0; z < channels; ++z)
    for (unsigned y = 0; y < h; ++y) {
      for (unsigned x = 0; x < w; ++x) row[x] = uint16_t(10 * z + y + 1);
      putrow(im, row.data(), y, z);
    }
  iclose(im);
}

std::vector<std::string> temporaries(const TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    if (e.path().filename().string().rfind("kelp", 0) == 0) names.push_back(e.path().string());
  return names;
}
}  // namespace

TEST(TimageFile, TellsFilesByTheirBytes) {
  TempDir dir;
  TimageFile f;
  auto typeOf = [&](const std::vector<uint8_t>& bytes, bool describe = false) {
    writeBytes(dir.file("probe"), bytes);
    return f.getImageType(dir.file("probe").c_str(), describe).str();
  };
  std::vector<uint8_t> b12(12, 0);
  auto with = [&](std::initializer_list<int> head) {
    auto b = b12;
    size_t i = 0;
    for (int v : head) b[i++] = uint8_t(v);
    return b;
  };
  EXPECT_EQ(typeOf(with({0x01, 0xDA})), "sgi");
  EXPECT_EQ(typeOf(with({'F', 'O', 'R', '4', 0, 0, 0, 4, 'C', 'I', 'M', 'G'})), "kelp");
  EXPECT_EQ(typeOf(with({'F', 'O', 'R', '4', 0, 0, 0, 4, 'K', 'e', 'l', 'p'})), "");
  EXPECT_EQ(typeOf(with({'F', 'O', 'R', '4', 0, 0, 0, 4, 'C', 'A', 'C', 'H'}), true),
            Tstring(TstringIdNumber(635)).str());
  EXPECT_EQ(typeOf(with({'I', 'I', 0x2A, 0})), "tif");
  EXPECT_EQ(typeOf(with({'M', 'M', 0, 0x2A})), "tif");
  EXPECT_EQ(typeOf(with({0xFF, 0xD8, 0xFF, 0xE0, 0, 16, 'J', 'F'})), "jpg");
  std::vector<uint8_t> ascii = {'/', '/', 'K', 'e', 'l', 'p', ' ', 'A', 'S', 'C', 'I', 'I', ' ', '1'};
  EXPECT_EQ(typeOf(ascii, true), Tstring(TstringIdNumber(634)).str());
  EXPECT_EQ(typeOf(ascii), "");
  EXPECT_EQ(typeOf(with({'8', 'B', 'P', 'S', 0, 1})), "psd");  // survives a provider with nothing to say
  EXPECT_EQ(typeOf(with({'8', 'B', 'P', 'S', 0, 2})), "");     // version 2 is not a document here
  EXPECT_FALSE(TpsdTextureFile::isFilePsd(dir.file("missing")));

  // Short and unknown files go to the plug-ins: silent on "__none_".
  ReportLines reports;
  EXPECT_EQ(typeOf({'x', 'y'}), "");
  EXPECT_TRUE(reports.lines.empty());
  GreyPlugin grey;
  EXPECT_EQ(typeOf({'G', 'R', 'E', 'Y', 2, 2, 1, 2, 3, 4}), "grey");
}

TEST(TimageFile, ReadsIffAndSgiIntoPixelMaps) {
  TempDir dir;
  writeIff(dir.file("a.iff"), 40, 30, 7, 1, 77);
  TimageFile f;
  ASSERT_EQ(f.identifyAndOpen(dir.file("a.iff").c_str()), 0);
  EXPECT_TRUE(f.isOpen());
  EXPECT_TRUE(f.alpha());
  EXPECT_TRUE(f.hasRGB());
  EXPECT_TRUE(f.hasDepthMap());
  TpixelMap map;  // empty: takes the file's size
  ASSERT_EQ(f.readPixelMap(map), 0);
  EXPECT_EQ(map.width(), 40);
  EXPECT_EQ(map.pixelPointer(39, 29)->fChannels.fRed, 77);
  EXPECT_EQ(f.close(), 0);
  // A map of another size reads a zoomed picture.
  ASSERT_EQ(f.identifyAndOpen(dir.file("a.iff").c_str()), 0);
  TpixelMap small(20, 15);
  ASSERT_EQ(f.readPixelMap(small), 0);
  EXPECT_NEAR(small.pixelPointer(10, 7)->fChannels.fGreen, 77, 1);
  f.close();
  ASSERT_EQ(f.identifyAndOpen(dir.file("a.iff").c_str()), 0);
  TfloatArray depth;
  ASSERT_EQ(f.readDepthMap(depth), 0);
  EXPECT_EQ(depth.length(), 40 * 30);
  EXPECT_EQ(depth[0], -0.5f);
  f.close();

  // SGI: alpha 255 for a grey picture through a pixel map, grey through an image.
  writeSgi(dir.file("g.sgi"), 5, 3, 1);
  ASSERT_EQ(f.identifyAndOpen(dir.file("g.sgi").c_str()), 0);
  EXPECT_NE(f.sgiImage(), nullptr);
  EXPECT_FALSE(f.isOpen());
  TpixelMap grey;
  ASSERT_EQ(f.readPixelMap(grey), 0);
  EXPECT_EQ(grey.pixelPointer(0, 2)->fValue, 0xFF030303u);
  f.close();
  ASSERT_EQ(f.identifyAndOpen(dir.file("g.sgi").c_str()), 0);
  Timage image;
  ASSERT_EQ(f.readImage(image), 0);
  EXPECT_EQ(*static_cast<uint32_t*>(image.pixels(0, 2)), 0x03030303u);
  f.close();
  writeSgi(dir.file("c.sgi"), 4, 2, 4);
  ASSERT_EQ(f.identifyAndOpen(dir.file("c.sgi").c_str()), 0);
  EXPECT_TRUE(f.alpha());
  TpixelMap colour;
  ASSERT_EQ(f.readPixelMap(colour), 0);
  EXPECT_EQ(colour.pixelPointer(1, 1)->fValue, 0x20020C16u);  // alpha 32, red 2, green 12, blue 22
  f.close();

  // The whole-image helpers on top.
  unsigned short w = 0, h = 0;
  unsigned char* buffer = readImageFromFile(dir.file("c.sgi").c_str(), w, h, true);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(w, 4);
  EXPECT_EQ(h, 2);
  EXPECT_EQ(buffer[4 * 4 + 0], 2);  // red first after the switch
  writeImageToFile(buffer, w, h, dir.file("out.iff").c_str(), nullptr);
  delete[] buffer;
  buffer = readImageFromFile(dir.file("out.iff").c_str(), w, h, false);
  ASSERT_NE(buffer, nullptr);
  EXPECT_EQ(buffer[4 * 4 + 2], 22);
  delete[] buffer;
  writeSgi(dir.file("odd.sgi"), 5, 3, 3);
  buffer = readImageFromFile(dir.file("odd.sgi").c_str(), w, h, true);
  EXPECT_EQ(w, 8);
  EXPECT_EQ(h, 4);
  delete[] buffer;
  EXPECT_EQ(readImageFromFile(dir.file("missing.iff").c_str(), w, h, false), nullptr);
  writeImageToFile(nullptr, 1, 1, "/nonexistent/dir/x.iff", nullptr);  // quietly nothing
}

TEST(TimageFile, SizeLimitReportsAndTheirSwitch) {
  TempDir dir;
  ReportLines reports;
  TimageFile f;
  // Header-only files are enough to test the size rule.
  auto header = [&](const std::string& name, int w, int h) {
    ILimage* im = ILopen(name.c_str(), "w");
    ILsetsize(im, w, h);
    ILputheader(im);
    ILclose(im);
  };
  header(dir.file("big.iff"), 8192, 8192);
  EXPECT_EQ(f.identifyAndOpen(dir.file("big.iff").c_str()), 0);
  f.close();
  header(dir.file("huge.iff"), 8193, 16);
  TimageFile::setErrorReportingEnabled(false);
  EXPECT_EQ(f.identifyAndOpen(dir.file("huge.iff").c_str()), -1);
  EXPECT_TRUE(reports.has(Tstring(TstringIdNumber(621)).str()));  // said even when quiet
  EXPECT_TRUE(f.isActive());                                      // and the image stays open
  f.close();
  reports.lines.clear();
  EXPECT_EQ(f.open(dir.file("missing.iff").c_str(), true), -1);
  EXPECT_TRUE(reports.lines.empty());
  TimageFile::setErrorReportingEnabled(true);
  EXPECT_EQ(f.open(dir.file("missing.iff").c_str(), true), -1);
  EXPECT_TRUE(reports.has(Tstring(TstringIdNumber(619)).str() + dir.file("missing.iff")));
  EXPECT_EQ(f.open("", true), -1);
  EXPECT_TRUE(reports.has(Tstring(TstringIdNumber(618)).str()));
  EXPECT_EQ(f.identifyAndOpen(dir.file("missing.iff").c_str()), -1);  // nothing to identify: silent

  // A picture that needs conversion (here 2 bytes a channel) opens through
  // the IFF plug-in.
  writeIff(dir.file("top.iff"), 8, 8, 3, 2, 5);
  ASSERT_EQ(f.identifyAndOpen(dir.file("top.iff").c_str()), 0);
  EXPECT_EQ(f.bytesPerPixel(), 1);
  f.close();
  // Black pictures have no RGB: 628.
  ILimage* im = ILopen(dir.file("black.iff").c_str(), "w");
  ILsetsize(im, 4, 4);
  ILsettype(im, 2);
  std::vector<uint8_t> px(64, 9);
  ILsave(im, px.data(), nullptr, 0);
  ILclose(im);
  TimageFile g;
  ASSERT_EQ(g.open(dir.file("black.iff").c_str(), true), 0);
  TpixelMap m;
  EXPECT_EQ(g.readPixelMap(m), -1);
  EXPECT_TRUE(reports.has("has no RGB data"));
  unsigned w = 0, h = 0;
  TimageFile r;
  EXPECT_EQ(r.getResolutionInAdvance(dir.file("big.iff").c_str(), w, h), 0);
  EXPECT_EQ(w, 8192u);
}

TEST(TimageFile, TemporaryFilesLiveAsLongAsTheImage) {
  GreyPlugin grey;  // its folder before TMPDIR moves
  TempDir dir;
  setenv("TMPDIR", dir.path().c_str(), 1);
  std::vector<uint8_t> fake = {'G', 'R', 'E', 'Y', 3, 2, 10, 20, 30, 40, 50, 60};
  writeBytes(dir.file("pic.fake"), fake);
  {
    TimageFile f;
    ASSERT_EQ(f.identifyAndOpen(dir.file("pic.fake").c_str()), 0);
    EXPECT_EQ(temporaries(dir).size(), 1u);  // created at open
    TpixelMap map;
    ASSERT_EQ(f.readPixelMap(map), 0);
    EXPECT_EQ(map.pixelPointer(2, 1)->fChannels.fGreen, 60);
    EXPECT_EQ(f.close(), 0);
    EXPECT_TRUE(temporaries(dir).empty());  // removed at close
    unsigned w, h;
    EXPECT_EQ(f.getResolutionInAdvance(dir.file("pic.fake").c_str(), w, h), 0);
    EXPECT_EQ(h, 2u);
  }
  // Writing another format: IFF in a temporary file, converted at close.
  {
    TimageFile out;
    ASSERT_EQ(out.create(dir.file("new.fake").c_str(), 2, 1, TiffImageFile::kRLE, "grey"), 0);
    EXPECT_EQ(temporaries(dir).size(), 1u);
    TpixelMap map(2, 1);
    map.pixelPointer(1, 0)->fValue = 0xFF00AB00;
    EXPECT_EQ(out.writePixelMap(map), 0);
    EXPECT_EQ(out.close(), 0);
    EXPECT_TRUE(temporaries(dir).empty());
    auto written = readBytes(dir.file("new.fake"));
    ASSERT_EQ(written.size(), 8u);
    EXPECT_EQ(written[7], 0xAB);
    // A conversion that fails leaves the temporary file behind.
    ASSERT_EQ(out.create(dir.file("bad.out").c_str(), 2, 1, TiffImageFile::kRLE, "unknown"), 0);
    out.writePixelMap(map);
    EXPECT_EQ(out.close(), -1);
    EXPECT_EQ(temporaries(dir).size(), 1u);
    // "psdLayered" in any case writes plain IFF to the name itself.
    ASSERT_EQ(out.create(dir.file("layers.iff").c_str(), 2, 1, TiffImageFile::kRLE, "PSDlayered"), 0);
    out.writePixelMap(map);
    EXPECT_EQ(out.close(), 0);
    TimageFile check;
    EXPECT_EQ(check.getImageType(dir.file("layers.iff").c_str()).str(), "kelp");
  }
  // The disk class converts first and asks later.
  TimageDiskIO disk;
  ASSERT_EQ(disk.open(dir.file("pic.fake").c_str(), false), 0);
  Timage image;
  ASSERT_EQ(disk.readImage(image), 0);
  EXPECT_EQ(static_cast<uint8_t*>(image.pixels(1, 0))[1], 20);
  disk.close();
  ASSERT_EQ(disk.identifyAndOpen(dir.file("pic.fake").c_str()), 0);
  disk.close();
  unsetenv("TMPDIR");
}

TEST(TimageFile, TwoThreadsReadTwoFiles) {
  TempDir dir;
  writeIff(dir.file("one.iff"), 200, 150, 3, 1, 11);
  writeSgi(dir.file("two.sgi"), 180, 120, 3);
  writeIff(dir.file("three.iff"), 100, 300, 7, 1, 33);
  auto reader = [&](const std::string& name, uint8_t green, bool* ok) {
    for (int i = 0; i < 20; ++i) {
      TimageFile f;
      if (f.identifyAndOpen(name.c_str()) != 0) {
        *ok = false;
        return;
      }
      TpixelMap map;
      if (f.readPixelMap(map) != 0 || map.pixelPointer(5, 5)->fChannels.fGreen != green) *ok = false;
      f.close();
    }
  };
  bool ok1 = true, ok2 = true, ok3 = true;
  std::thread a(reader, dir.file("one.iff"), 11, &ok1);
  std::thread b(reader, dir.file("two.sgi"), 16, &ok2);
  std::thread c(reader, dir.file("three.iff"), 33, &ok3);
  a.join();
  b.join();
  c.join();
  EXPECT_TRUE(ok1);
  EXPECT_TRUE(ok2);
  EXPECT_TRUE(ok3);
}

TEST(TimageFile, MemoryMappedRegion) {
  // No constructor sets the mapped case; a class built on TimageFile can.
  struct Mapped : TimageFile {
    Mapped() { setMapped(true, 4, 2); }
  };
  TempDir dir;
  writeIff(dir.file("m.iff"), 4, 4);
  auto bytes = readBytes(dir.file("m.iff"));
  ASSERT_GE(bytes.size(), 32u);
  Mapped m;
  ASSERT_EQ(m.open(dir.file("m.iff").c_str(), false), 0);
  EXPECT_FALSE(m.isActive());  // the pixels come from the view, not an IL image
  TpixelMap map;
  ASSERT_EQ(m.readPixelMap(map), 0);
  EXPECT_EQ(map.width(), 4);
  EXPECT_FALSE(map.ownsPixels());
  EXPECT_EQ(std::memcmp(map.pixels(), bytes.data(), 32), 0);  // the file's own bytes
  TfloatArray depth;
  EXPECT_EQ(m.readDepthMap(depth), -1);
}

TEST(TimageFile, SgiWiderThanAPixelMapIsRefused) {
  TempDir dir;
  writeSgi(dir.file("wide.sgi"), 40000, 2, 1);
  ReportLines reports;
  TimageFile f;
  ASSERT_EQ(f.identifyAndOpen(dir.file("wide.sgi").c_str()), 0);
  TpixelMap map;
  EXPECT_EQ(f.readPixelMap(map), -1);
  EXPECT_TRUE(reports.has("Cannot read SGI image file"));
  TpixelMap narrow(100, 2);
  EXPECT_EQ(f.readPixelMap(narrow, 0, 2), -1);
  f.close();
}

// A write that does not reach the disk fails at close, with a report,
// through every file class and the image library itself.
TEST(TimageFile, WriteErrorsReachTheCaller) {
  ReportLines reports;
  TpixelMap map(200, 100);
  TimageFile f;
  ASSERT_EQ(f.create("/dev/full", 200, 100, TiffImageFile::kRLE, nullptr), 0);  // a device opens
  f.writePixelMap(map);  // the bytes may still be in a buffer here
  EXPECT_EQ(f.close(), -1);
  EXPECT_TRUE(reports.has("Image file /dev/full is incomplete")) << (reports.lines.empty() ? "" : reports.lines[0]);

  TimageDiskIO d;
  ASSERT_EQ(d.create("/dev/full", 200, 100, TiffImageFile::kNone, nullptr), 0);
  Timage image(200, 100, kRGBA8);
  d.writeImage(image);
  EXPECT_EQ(d.close(), -1);

  TiffImageFile t("/dev/full", "w");
  ASSERT_TRUE(t.isActive());
  t.setSize(200, 100);
  std::vector<uint8_t> px(200 * 100 * 4);
  t.save(px.data(), nullptr, 0);
  EXPECT_EQ(t.close(), FL_EWRITE);

  ILimage* im = ILopen("/dev/full", "w");
  ASSERT_NE(im, nullptr);
  ILsetsize(im, 200, 100);
  ILsave(im, px.data(), nullptr, 0);
  EXPECT_EQ(ILclose(im), FL_EWRITE);
}

// Memory that cannot be had is a failed call, never an exception in the host.
TEST(TimageFile, OutOfMemoryIsAFailedCall) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need more address space than the limit leaves";
#else
  TempDir dir;
  std::string name = dir.file("big.iff");
  writeIff(name, 8192, 4096);  // 128 MB as a pixel map
  auto readUnderALimit = [&] {
    rlimit limit{96u << 20, 96u << 20};
    setrlimit(RLIMIT_AS, &limit);
    ReportLines reports;
    TimageFile f;
    int opened = f.identifyAndOpen(name.c_str());
    TpixelMap map;
    int rc = f.readPixelMap(map);
    std::exit(opened == 0 && rc == -1 && reports.has("Out of memory") ? 0 : 1);
  };
  EXPECT_EXIT(readUnderALimit(), testing::ExitedWithCode(0), "");
#endif
}
