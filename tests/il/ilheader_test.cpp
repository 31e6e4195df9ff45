// Image header: exact bytes of what the writer produces, reading it back,
// attribute rules and fields.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "kelpimage/il/il.h"
#include "testutil.h"

using namespace kelptest;

namespace {
// Finds the first chunk with `tag` at or after `from`, walking items of 4-byte alignment.
size_t findTag(const std::vector<uint8_t>& b, const char* tag, size_t from = 12) {
  for (size_t at = from; at + 8 <= b.size();) {
    if (text(b, at, 4) == tag) return at;
    if (text(b, at, 4) == "FOR4") {
      at += 12;
      continue;
    }
    at += 8 + ((be32(b, at + 4) + 3) & ~3u);
  }
  return std::string::npos;
}
}  // namespace

TEST(ILheader, NewFileDefaultsAndExactHeaderBytes) {
  TempDir dir;
  std::string name = dir.file("d.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ASSERT_NE(im, nullptr) << FLstrerror(flerrno);
  EXPECT_EQ(im->width, 384u);
  EXPECT_EQ(im->height, 288u);
  EXPECT_EQ(im->type, 3u);
  EXPECT_EQ(im->compress, 1u);
  ASSERT_EQ(ILputheader(im), 0);
  EXPECT_EQ(im->headerpos, 12u);
  ASSERT_EQ(ILclose(im), 0);

  auto b = readBytes(name);
  EXPECT_EQ(text(b, 0, 4), "FOR4");
  EXPECT_EQ(be32(b, 4), b.size() - 8);
  EXPECT_EQ(text(b, 8, 4), "CIMG");
  EXPECT_EQ(text(b, 12, 4), "FVER");
  EXPECT_EQ(be32(b, 16), 4u);
  EXPECT_EQ(be32(b, 20), 0x10001u);
  ASSERT_EQ(text(b, 24, 4), "TBHD");
  ASSERT_EQ(be32(b, 28), 32u);
  const uint8_t tbhd[32] = {0, 0, 1, 128, 0, 0, 1, 32,  // 384 by 288
                            0, 1, 0, 1,                 // ratio 1:1
                            0, 0, 0, 3,                 // colour and alpha
                            0, 0, 0, 30,                // 1 byte per channel, 6 by 5 tiles of 64
                            0, 0, 0, 1,                 // RLE
                            0, 0, 0, 0,   0, 0, 0, 0};
  EXPECT_EQ(std::memcmp(b.data() + 32, tbhd, 32), 0);
  // No fields: AUTH follows the header straight away, then DATE of 24 characters.
  EXPECT_EQ(text(b, 64, 4), "AUTH");
  size_t date = findTag(b, "DATE");
  ASSERT_NE(date, std::string::npos);
  EXPECT_EQ(be32(b, date + 4), 24u);
  EXPECT_EQ(b.size(), date + 8 + 24);
  EXPECT_EQ(findTag(b, "FLDS"), std::string::npos);
}

TEST(ILheader, AttributesReadBackWithFieldsAndDpi) {
  TempDir dir;
  std::string name = dir.file("a.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ASSERT_EQ(ILsetsize(im, 640, 480), 0);
  ASSERT_EQ(ILsetorigin(im, -5, 7), 0);
  ASSERT_EQ(ILsettype(im, 1 | 4), 0);
  ASSERT_EQ(ILsetratio(im, 4, 3), 0);
  ASSERT_EQ(ILsetbpp(im, 2), 0);
  ASSERT_EQ(ILsetcompress(im, 2), 0);
  im->dpi = 300.0f;
  uint16_t word = 0x0102;
  const uint32_t kWord = FLmaketag("WRD\x12");  // 2-byte elements, copied
  ASSERT_EQ(ILsetfield(im, kWord, 2, &word), 0);
  ASSERT_EQ(ILsetfield(im, FLmaketag("TXT "), 5, "abcde"), 0);
  ASSERT_EQ(ILputheader(im), 0);
  ASSERT_EQ(ILclose(im), 0);

  auto b = readBytes(name);
  size_t flds = findTag(b, "FLDS");
  ASSERT_EQ(flds, 64u);  // right behind the header
  // Head of the list first: the DPI field, set last, then TXT, then WRD.
  size_t at = flds + 8;
  uint32_t tag;
  std::memcpy(&tag, b.data() + at, 4);
  EXPECT_EQ(tag, IL_DPI);
  EXPECT_EQ(be32(b, at + 4), 10u);
  EXPECT_EQ(text(b, at + 8, 10), "300.000000");
  at += 8 + 12;
  EXPECT_EQ(be32(b, at + 4), 5u);
  EXPECT_EQ(text(b, at + 8, 5), "abcde");
  at += 8 + 8;
  EXPECT_EQ(be32(b, at + 4), 2u);
  EXPECT_EQ(b[at + 8], 0x01);  // big-endian in the file
  EXPECT_EQ(b[at + 9], 0x02);
  at += 8 + 4;
  EXPECT_EQ(be32(b, at), 0u);
  EXPECT_EQ(be32(b, at + 4), 0u);
  EXPECT_EQ(be32(b, flds + 4), at + 8 - (flds + 8));

  im = ILopen(name.c_str(), "r");
  ASSERT_NE(im, nullptr) << FLstrerror(flerrno);
  int32_t w, h, x, y, n, d;
  ASSERT_EQ(ILgetsize(im, &w, &h), 0);
  EXPECT_EQ(w, 640);
  EXPECT_EQ(h, 480);
  ASSERT_EQ(ILgetorigin(im, &x, &y), 0);
  EXPECT_EQ(x, -5);
  EXPECT_EQ(y, 7);
  ASSERT_EQ(ILgetratio(im, &n, &d), 0);
  EXPECT_EQ(n, 4);
  EXPECT_EQ(d, 3);
  EXPECT_EQ(ILgettype(im), 5);
  EXPECT_EQ(ILgetbpp(im), 2);
  EXPECT_EQ(ILgetcompress(im), 2);
  EXPECT_EQ(ILgetpages(im), 10 * 8);
  EXPECT_EQ(im->version, 0x10001u);
  EXPECT_FLOAT_EQ(im->dpi, 300.0f);
  const void* value = nullptr;
  ASSERT_EQ(ILgetfield(im, kWord, &value), 2u);
  EXPECT_EQ(*static_cast<const uint16_t*>(value), 0x0102);
  ASSERT_EQ(ILgetfield(im, FLmaketag("TXT "), &value), 5u);
  EXPECT_EQ(std::memcmp(value, "abcde", 5), 0);
  EXPECT_EQ(ILgetfield(im, FLmaketag("NONE"), &value), 0u);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(static_cast<const char*>(value), "");

  // Fields go along to another image only when their tag has bit 0x10.
  ILimage* copy = ILopen(dir.file("c.iff").c_str(), "w");
  ASSERT_EQ(ILcopyfields(copy, im), 0);
  EXPECT_EQ(ILgetfield(copy, kWord, nullptr), 2u);
  EXPECT_EQ(ILgetfield(copy, IL_DPI, nullptr), 0u);
  EXPECT_EQ(ILgetfield(copy, FLmaketag("TXT "), nullptr), 0u);
  ILclose(copy);
  ILclose(im);
}

TEST(ILheader, DpiOf72OrBelowOneIsNotWritten) {
  TempDir dir;
  for (float dpi : {72.0f, 0.5f}) {
    std::string name = dir.file("dpi.iff");
    ILimage* im = ILopen(name.c_str(), "w");
    im->dpi = dpi;
    ASSERT_EQ(ILputheader(im), 0);
    ILclose(im);
    im = ILopen(name.c_str(), "r");
    ASSERT_NE(ILgetheader(im), nullptr);
    EXPECT_EQ(im->dpi, 0.0f);  // absent field reads as 0, not 72
    ILclose(im);
  }
}

TEST(ILheader, AttributeRulesAndRefusalsAfterTheHeader) {
  TempDir dir;
  ILimage* im = ILopen(dir.file("r.iff").c_str(), "w");
  EXPECT_EQ(ILsetsize(im, 32768, 1), 0);
  EXPECT_EQ(ILsetsize(im, 32769, 10), IL_ERANGE);
  EXPECT_EQ(ILsetsize(im, 0, 10), IL_ERANGE);
  EXPECT_EQ(im->width, 32768u);
  ILsettype(im, 18);
  EXPECT_EQ(im->type, 2u);
  ILsettype(im, 19);
  EXPECT_EQ(im->type, 2u);
  ILsettype(im, 3);
  EXPECT_EQ(im->type, 3u);
  ILsetratio(im, 2, 5);
  EXPECT_EQ(ILsetratio(im, 0, 0), 0);
  EXPECT_EQ(im->prnum, 2);
  EXPECT_EQ(im->prden, 5);
  EXPECT_EQ(ILsetbpp(im, 4), 0);  // ignored
  EXPECT_EQ(im->bytes, 1);
  ILsetfield(im, FLmaketag("ONE "), 3, "abc");
  ILsetfield(im, FLmaketag("ONE "), 2, "xy");
  EXPECT_EQ(im->fields.count, 1u);
  ILsetfield(im, FLmaketag("ONE "), 0, "xy");
  EXPECT_EQ(im->fields.count, 0u);
  ASSERT_EQ(ILsetsize(im, 100, 100), 0);
  ASSERT_EQ(ILputheader(im), 0);

  EXPECT_EQ(ILsetsize(im, 10, 10), IL_EFIXED);
  EXPECT_EQ(ILsetorigin(im, 1, 1), IL_EFIXED);
  EXPECT_EQ(ILsettype(im, 1), IL_EFIXED);
  EXPECT_EQ(ILsetratio(im, 1, 1), IL_EFIXED);
  EXPECT_EQ(ILsetbpp(im, 2), IL_EFIXED);
  EXPECT_EQ(ILsetcompress(im, 0), IL_EFIXED);
  EXPECT_EQ(ILsetpages(im, 3), IL_EFIXED);
  EXPECT_EQ(ILsetpagesize(im, 32, 32), IL_EFIXED);
  EXPECT_EQ(ILsetfield(im, FLmaketag("TWO "), 1, "z"), IL_EFIXED);
  EXPECT_EQ(flerrno, IL_EFIXED);
  EXPECT_EQ(ILsetlookups(im, nullptr), 0);  // never refused
  EXPECT_EQ(im->width, 100u);
  ILclose(im);
}

TEST(ILheader, TileLayoutTableAndFixedPageSize) {
  TempDir dir;
  struct Case {
    int w, h;
    uint32_t tw, th;
    int pages;
  } cases[] = {{4096, 4096, 64, 64, 4096},
               {100, 5000, 512, 128, 40},
               {5000, 10, 256, 64, 20},
               {9000, 10, 1024, 32, 9},
               {20000, 33, 2048, 32, 20}};
  for (const Case& c : cases) {
    ILimage* im = ILopen(dir.file("t.iff").c_str(), "w");
    ILsetsize(im, c.w, c.h);
    ASSERT_EQ(ILputheader(im), 0);
    EXPECT_EQ(im->twidth, c.tw);
    EXPECT_EQ(im->theight, c.th);
    EXPECT_EQ(im->pages, c.pages);
    ILclose(im);
  }
  ILimage* im = ILopen(dir.file("t.iff").c_str(), "w");
  ILsetsize(im, 100, 40);
  EXPECT_EQ(ILsetpagesize(im, 32769, 10), IL_ERANGE);
  ASSERT_EQ(ILsetpagesize(im, 5, 200), 0);
  EXPECT_EQ(im->twidth, 16u);
  EXPECT_EQ(im->theight, 40u);
  EXPECT_EQ(im->pages, 7);
  ASSERT_EQ(ILputheader(im), 0);
  EXPECT_EQ(im->pages, 7);  // the caller's layout stands
  ILclose(im);
}

TEST(ILheader, HeaderRewrittenInPlaceKeepsTheFileLength) {
  TempDir dir;
  std::string name = dir.file("rw.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetfield(im, FLmaketag("NOTE"), 3, "abc");
  im->dpi = 150.0f;
  ASSERT_EQ(ILputheader(im), 0);
  ASSERT_EQ(FLputchunk(im, FLmaketag("MORE"), 4, "data"), 0);
  uint64_t end = FLtell(im);
  // What a writer that learns its tile count at the end does.
  im->ictl &= ~ILC_HEADER;
  ILsetpages(im, 1234);
  ASSERT_EQ(FLseek(im, im->headerpos, 0), 0);
  ASSERT_EQ(ILputheader(im), 0);
  ASSERT_EQ(FLtell(im), end - 12);  // up to the chunk behind the header
  ASSERT_EQ(FLseek(im, end, 0), 0);
  ASSERT_EQ(ILclose(im), 0);
  auto b = readBytes(name);
  EXPECT_EQ(b.size(), end);
  im = ILopen(name.c_str(), "r");
  EXPECT_EQ(ILgetpages(im), 1234);
  EXPECT_FLOAT_EQ(im->dpi, 150.0f);
  EXPECT_EQ(ILgetfield(im, FLmaketag("NOTE"), nullptr), 3u);
  ILclose(im);
}

TEST(ILheader, TypeDescriptions) {
  char buf[64];
  EXPECT_STREQ(ILtypename(3, buf, sizeof buf), "RGB with Alpha");
  EXPECT_STREQ(ILtypename(1 | 4, buf, sizeof buf), "RGB without Alpha, ZBuffer");
  EXPECT_STREQ(ILtypename(16 | 2, buf, sizeof buf), "Black with Alpha");
  EXPECT_STREQ(ILtypename(0, buf, sizeof buf), "BW without Alpha");
}

// A header is not believed for more pixels than the limit, nor for a large
// picture its file cannot hold; what it says stays readable in the handle.
TEST(ILheader, SizesBeyondTheLimitOrTheFileAreRefused) {
  TempDir dir;
  std::string name = dir.file("h.iff");
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, 100, 50);
  ILputheader(im);
  ILclose(im);
  auto good = readBytes(name);
  size_t at = 0;
  for (size_t i = 0; i + 4 <= good.size(); ++i)
    if (text(good, i, 4) == "TBHD") at = i + 8;
  ASSERT_GT(at, 0u);
  auto withSize = [&](uint32_t w, uint32_t h) {
    auto b = good;
    for (int k = 0; k < 4; ++k) {
      b[at + size_t(k)] = uint8_t(w >> (24 - 8 * k));
      b[at + 4 + size_t(k)] = uint8_t(h >> (24 - 8 * k));
    }
    writeBytes(name, b);
    return ILopen(name.c_str(), "r");
  };

  for (auto [w, h] : {std::pair<uint32_t, uint32_t>{2147483647u, 2147483647u}, {20000, 20000}, {70000, 1}, {0, 5}}) {
    im = withSize(w, h);
    ASSERT_NE(im, nullptr);
    EXPECT_EQ(ILgetheader(im), nullptr) << w << "x" << h;
    EXPECT_EQ(flerrno, IL_ERANGE);
    EXPECT_TRUE(im->ictl & ILC_REFUSED);
    EXPECT_EQ(im->width, w);  // as the header holds it
    int32_t gw = 0, gh = 0;
    EXPECT_EQ(ILgetsize(im, &gw, &gh), IL_ERANGE);  // a second look is refused as well
    uint8_t px[4];
    EXPECT_EQ(ILload(im, px, nullptr), IL_ERANGE);
    ILclose(im);
  }

  // A header alone may stand for a picture of up to 2^26 pixels.
  im = withSize(8192, 8192);
  EXPECT_NE(ILgetheader(im), nullptr);
  ILclose(im);

  // The limit is the host's to set.
  uint64_t before = ILmaxpixels(0);
  EXPECT_EQ(before, uint64_t(1) << 27);  // the library's one pixel limit
  ILmaxpixels(100 * 50 - 1);
  im = withSize(100, 50);
  EXPECT_EQ(ILgetheader(im), nullptr);
  EXPECT_EQ(flerrno, IL_ERANGE);
  ILclose(im);
  ILmaxpixels(before);
  im = withSize(100, 50);
  EXPECT_NE(ILgetheader(im), nullptr);
  ILclose(im);
}

TEST(ILheaderLimit, PixelLimitFromTheEnvironment) {
  if (!std::getenv("KELP_MAX_PIXELS")) GTEST_SKIP() << "needs KELP_MAX_PIXELS at first use";
  EXPECT_EQ(ILmaxpixels(0), 5000u);
}
