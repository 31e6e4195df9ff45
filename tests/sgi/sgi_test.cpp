// The SGI library: exact row encodings, dimensions, byte orders, rewritten
// rows, per-sample access and damaged files.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/sgi/sgi.h"
#include "testutil.h"

using namespace kelptest;

namespace {

// The encoded bytes of row 0 of a one-row, one-channel run-length file.
std::vector<uint8_t> encodedRow(const std::vector<uint16_t>& samples, unsigned bpp = 1) {
  TempDir dir;
  std::string name = dir.file("row.sgi");
  IMAGE* im = iopen(name.c_str(), "w", SGI_RLE | bpp, 1, unsigned(samples.size()), 1, 1);
  EXPECT_NE(im, nullptr);
  EXPECT_EQ(putrow(im, samples.data(), 0, 0), int(samples.size()));
  EXPECT_EQ(iclose(im), 0);
  auto b = readBytes(name);
  uint32_t start = be32(b, 512), size = be32(b, 516);
  return std::vector<uint8_t>(b.begin() + start, b.begin() + start + size);
}
}  // namespace

TEST(SGI, RunLengthRowsEncodeExactly) {
  // 127 equal samples: a run of 126 and a run of 1, then the terminator.
  EXPECT_EQ(encodedRow(std::vector<uint16_t>(127, 9)), (std::vector<uint8_t>{126, 9, 1, 9, 0}));
  // No three equal in a row: literals of up to 126, and the last two as runs of 1.
  std::vector<uint16_t> distinct;
  for (int i = 0; i < 130; ++i) distinct.push_back(uint16_t(i % 2 ? i : 200 - i));
  auto row = encodedRow(distinct);
  ASSERT_EQ(row.size(), 1u + 126 + 1 + 2 + 2 + 2 + 1);
  EXPECT_EQ(row[0], 0x80 | 126);
  EXPECT_EQ(row[127], 0x80 | 2);
  EXPECT_EQ(std::vector<uint8_t>(row.end() - 5, row.end()),
            (std::vector<uint8_t>{1, uint8_t(distinct[128]), 1, uint8_t(distinct[129]), 0}));
  // A stretch, then three equal: literal, run.
  EXPECT_EQ(encodedRow({1, 2, 5, 5, 5}), (std::vector<uint8_t>{0x82, 1, 2, 3, 5, 0}));
  // Two-byte units, big-endian.
  EXPECT_EQ(encodedRow({0x1234, 0x1234, 0x1234}, 2), (std::vector<uint8_t>{0, 3, 0x12, 0x34, 0, 0}));
}

TEST(SGI, RoundTripsAndHeader) {
  TempDir dir;
  for (unsigned storage : {SGI_VERBATIM, SGI_RLE})
    for (unsigned bpp : {1u, 2u})
      for (unsigned z : {1u, 3u, 4u}) {
        std::string name = dir.file("rt.sgi");
        const unsigned w = 37, h = 11;
        IMAGE* im = iopen(name.c_str(), "w", storage | bpp, 3, w, h, z);
        ASSERT_NE(im, nullptr);
        std::vector<uint16_t> row(w);
        for (unsigned c = 0; c < z; ++c)
          for (unsigned y = 0; y < h; ++y) {
            for (unsigned x = 0; x < w; ++x)
              row[x] = uint16_t(((x / 5) * 31 + y * 7 + c * 50) * (bpp == 2 ? 257 : 1) & (bpp == 2 ? 0xFFFF : 0xFF));
            ASSERT_EQ(putrow(im, row.data(), y, c), int(w));
          }
        ASSERT_EQ(iclose(im), 0);
        auto b = readBytes(name);
        EXPECT_EQ(b[0], 0x01);
        EXPECT_EQ(b[1], 0xDA);
        EXPECT_EQ(b[2], storage >> 8);
        EXPECT_EQ(b[3], bpp);
        EXPECT_EQ(b[5], z == 1 ? 2 : 3);
        EXPECT_EQ(text(b, 24, 7), "no name");
        if (storage == SGI_VERBATIM) {
          EXPECT_EQ(b.size(), 512u + w * h * z * bpp);
        }
        im = iopen(name.c_str(), "r");
        ASSERT_NE(im, nullptr);
        EXPECT_EQ(im->xsize, w);
        EXPECT_EQ(im->zsize, z);
        for (unsigned c = 0; c < z; ++c)
          for (unsigned y = 0; y < h; ++y) {
            ASSERT_EQ(getrow(im, row.data(), y, c), int(w));
            for (unsigned x = 0; x < w; ++x)
              ASSERT_EQ(row[x],
                        uint16_t(((x / 5) * 31 + y * 7 + c * 50) * (bpp == 2 ? 257 : 1) & (bpp == 2 ? 0xFFFF : 0xFF)));
          }
        EXPECT_EQ(iclose(im), 0);
      }
}

TEST(SGI, DimensionsRewritesAndSampleAccess) {
  TempDir dir;
  std::string name = dir.file("d.sgi");
  // dim 3 with zsize 1 is dim 2, or 1 with ysize 1 as well.
  IMAGE* im = iopen(name.c_str(), "w", SGI_RLE | 1, 3, 4, 2, 1);
  EXPECT_EQ(im->dim, 2);
  uint16_t row[4] = {1, 2, 3, 4};
  putrow(im, row, 0, 5);  // z is ignored for dim 2
  uint32_t before = im->rleend;
  putrow(im, row, 0, 0);  // rewritten: the old bytes are dead space
  EXPECT_GT(im->rleend, before);
  EXPECT_EQ(im->wastebytes, before - (512 + 16));
  iclose(im);
  im = iopen(name.c_str(), "r");
  EXPECT_EQ(im->wastebytes, 8u);  // the first encoding of the row: 2 literals, 2 runs, the end
  uint16_t back[4] = {};
  EXPECT_EQ(getrow(im, back, 0, 0), 4);
  EXPECT_EQ(back[3], 4);
  EXPECT_EQ(getrow(im, back, 1, 0), -1);  // never written
  iclose(im);
  im = iopen(dir.file("one.sgi").c_str(), "w", SGI_VERBATIM | 1, 3, 3, 1, 1);
  EXPECT_EQ(im->dim, 1);
  uint16_t three[3] = {10, 11, 12};
  putrow(im, three, 0, 0);
  iclose(im);
  im = iopen(dir.file("one.sgi").c_str(), "r");
  EXPECT_EQ(getrow(im, back, 9, 9), 3);  // dim 1 reads row 0 whatever is asked
  EXPECT_EQ(back[2], 12);
  iclose(im);

  // A file in host byte order (bytes DA 01 here) is read as it stands.
  std::vector<uint8_t> host(512 + 4, 0);
  uint16_t hdr[6] = {474, 1, 1, 4, 1, 1};
  std::memcpy(host.data(), hdr, sizeof hdr);
  host[512] = 5, host[513] = 6, host[514] = 7, host[515] = 8;
  writeBytes(dir.file("host.sgi"), host);
  im = iopen(dir.file("host.sgi").c_str(), "r");
  ASSERT_NE(im, nullptr);
  EXPECT_EQ(im->swapped, 0);
  EXPECT_EQ(getrow(im, back, 0, 0), 4);
  EXPECT_EQ(back[0], 5);
  iclose(im);
}

TEST(SGI, DamagedFilesFailCleanly) {
  TempDir dir;
  Reports messages;
  writeBytes(dir.file("bad.sgi"), {0x12, 0x34, 0, 0});
  EXPECT_EQ(iopen(dir.file("bad.sgi").c_str(), "r"), nullptr);
  EXPECT_NE(messages.text.find("SGI image: iopen: error on read of image header"), std::string::npos);
  std::vector<uint8_t> magic(600, 0);
  magic[0] = 0x12;
  magic[1] = 0x34;
  writeBytes(dir.file("magic.sgi"), magic);
  EXPECT_EQ(iopen(dir.file("magic.sgi").c_str(), "r"), nullptr);
  EXPECT_NE(messages.text.find("SGI image: iopen: bad magic in image file"), std::string::npos);
  EXPECT_EQ(iopen(dir.file("missing.sgi").c_str(), "r"), nullptr);
  EXPECT_EQ(iopen(dir.file("x.sgi").c_str(), "r+"), nullptr);
  EXPECT_NE(messages.text.find("read/write mode not supported"), std::string::npos);

  // A good run-length file, then its tables and rows damaged every way.
  std::string name = dir.file("good.sgi");
  IMAGE* im = iopen(name.c_str(), "w", SGI_RLE | 1, 3, 20, 4, 3);
  std::vector<uint16_t> row(20);
  for (unsigned z = 0; z < 3; ++z)
    for (unsigned y = 0; y < 4; ++y) {
      for (unsigned x = 0; x < 20; ++x) row[x] = uint16_t(x * y + z);
      putrow(im, row.data(), y, z);
    }
  iclose(im);
  auto good = readBytes(name);
  auto readAll = [&](const std::vector<uint8_t>& bytes) {
    writeBytes(dir.file("damaged.sgi"), bytes);
    IMAGE* d = iopen(dir.file("damaged.sgi").c_str(), "r");
    if (!d) return;
    std::vector<uint16_t> out(size_t(d->xsize) + 1);
    for (unsigned z = 0; z < d->zsize && z < 8; ++z)
      for (unsigned y = 0; y < d->ysize && y < 64; ++y) getrow(d, out.data(), y, z);
    iclose(d);
  };
  auto far = good;
  far[512] = 0x7F;  // the first row starts far outside the file
  readAll(far);
  auto longRow = good;
  longRow[512 + 48] = 0x7F;  // the first row's length is huge
  readAll(longRow);
  auto packets = good;
  for (size_t i = 512 + 96; i < packets.size(); ++i) packets[i] = 0x7F;  // runs past the row
  readAll(packets);
  for (size_t cut = 0; cut < good.size(); cut += 7) {
    auto t = good;
    t.resize(cut);
    readAll(t);
  }
  uint32_t seed = 99;
  for (int round = 0; round < 500; ++round) {
    auto t = good;
    for (int k = 0; k < 3; ++k) {
      seed = seed * 1103515245u + 12345u;
      t[(seed >> 8) % t.size()] = uint8_t(seed >> 20);
    }
    readAll(t);
  }
}
