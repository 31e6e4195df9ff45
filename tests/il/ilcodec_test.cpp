// Pixel codecs: exact payload bytes for small hand-made tiles, the quirks
// of each form, round trips and damaged payloads.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "kelpimage/il/il.h"

namespace {
ILpackinfo info(uint32_t w, uint32_t h, uint32_t bytes, uint32_t bitmask, uint32_t channels, uint32_t size = 0) {
  ILpackinfo i{};
  i.width = w;
  i.height = h;
  i.bytes = bytes;
  i.bitmask = bitmask;
  i.channels = channels;
  i.linewidth = w;
  i.size = size;
  return i;
}

// A one-channel plane of 16384 bytes in runs of 128 (values 1 and 2 by
// turns), then `tail`: the runs lift the output over the 128-byte minimum
// and leave the encoder fresh where `tail` begins.
std::vector<uint8_t> packPlane(const std::vector<uint8_t>& tail, std::vector<uint8_t>* source = nullptr) {
  std::vector<uint8_t> plane;
  for (int block = 0; block < 128; ++block) plane.insert(plane.end(), 128, uint8_t(1 + block % 2));
  plane.insert(plane.end(), tail.begin(), tail.end());
  std::vector<uint8_t> out(plane.size());
  ILpackinfo i = info(uint32_t(plane.size()), 1, 1, 1, 1);
  int n = ILpackrle(out.data(), plane.data(), &i);
  EXPECT_GE(n, 256);
  if (source) *source = plane;
  return std::vector<uint8_t>(out.begin() + 256, out.begin() + n);
}

std::vector<uint8_t> bytes(std::initializer_list<int> v) {
  std::vector<uint8_t> b;
  for (int x : v) b.push_back(uint8_t(x));
  return b;
}
}  // namespace

TEST(ILcodec, StoredFormIsWorkingOrderBigEndian) {
  uint8_t px[8] = {1, 2, 3, 4, 5, 6, 7, 8};  // blue, green, red, alpha
  uint8_t out[8];
  ILpackinfo i = info(2, 1, 1, 15, 4);
  ASSERT_EQ(ILpack(out, px, &i), 8);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 8), bytes({4, 1, 2, 3, 8, 5, 6, 7}));
  EXPECT_EQ(px[0], 1);  // the source is as it was

  uint8_t back[8] = {};
  i.size = 8;
  ASSERT_NE(ILunpack(back, out, &i), 0);
  EXPECT_EQ(std::memcmp(back, px, 8), 0);
  i.size = 7;
  EXPECT_EQ(ILunpack(back, out, &i), 0);
  EXPECT_EQ(flerrno, FL_EFIT);

  // Two bytes a channel: big-endian elements.
  uint16_t deep[4] = {0x0102, 0x0304, 0x0506, 0x0708};
  uint8_t out16[8];
  ILpackinfo d = info(1, 1, 2, 15, 4);
  ASSERT_EQ(ILpack(out16, deep, &d), 8);
  EXPECT_EQ(std::vector<uint8_t>(out16, out16 + 8), bytes({7, 8, 1, 2, 3, 4, 5, 6}));
  // Unpacked with `reduce`, each channel keeps its high byte.
  uint8_t reduced[4] = {};
  d.size = 8;
  d.reduce = 1;
  ASSERT_NE(ILunpack(reduced, out16, &d), 0);
  EXPECT_EQ(std::vector<uint8_t>(reduced, reduced + 4), bytes({1, 3, 5, 7}));
}

TEST(ILcodec, RunLengthPacketsFollowTheEncoderRules) {
  EXPECT_EQ(packPlane(bytes({'A', 'A', 'B'})), bytes({0x81, 'A', 0x00, 'B'}));
  EXPECT_EQ(packPlane(bytes({'B', 'A', 'A', 'C'})), bytes({0x03, 'B', 'A', 'A', 'C'}));
  EXPECT_EQ(packPlane(bytes({'B', 'A', 'A', 'A', 'C'})), bytes({0x00, 'B', 0x82, 'A', 0x00, 'C'}));
  EXPECT_EQ(packPlane(std::vector<uint8_t>(129, 'Z')), bytes({0xFF, 'Z', 0x00, 'Z'}));
  std::vector<uint8_t> mixed;
  for (int i = 0; i < 130; ++i) mixed.push_back(uint8_t(10 + i % 7 * 3 + i / 7));
  auto packed = packPlane(mixed);
  ASSERT_EQ(packed.size(), 1u + 128 + 1 + 2);  // a literal of 128, then one of 2
  EXPECT_EQ(packed[0], 127);
  EXPECT_EQ(packed[129], 1);

  // And back.
  std::vector<uint8_t> source;
  std::vector<uint8_t> out(20000);
  packPlane(bytes({'B', 'A', 'A', 'A', 'C'}), &source);
  ILpackinfo i = info(uint32_t(source.size()), 1, 1, 1, 1);
  i.size = uint32_t(ILpackrle(out.data(), source.data(), &i));
  std::vector<uint8_t> back(source.size());
  ASSERT_NE(ILunpackrle(back.data(), out.data(), &i), 0);
  EXPECT_EQ(back, source);
}

TEST(ILcodec, SmallRunLengthResultsAreStored) {
  for (uint32_t bitmask : {1u, 3u, 7u, 15u}) {
    uint32_t channels = bitmask == 15 ? 4 : uint32_t(__builtin_popcount(bitmask));
    std::vector<uint8_t> tile(128 * channels, 9);
    std::vector<uint8_t> out(tile.size());
    ILpackinfo i = info(128, 1, 1, bitmask, channels);
    EXPECT_EQ(ILpackrle(out.data(), tile.data(), &i), int(tile.size())) << bitmask;
  }
  // A payload one byte short of stored is taken as compressed.
  std::vector<uint8_t> tile(128, 9), out(128);
  ILpackinfo i = info(128, 1, 1, 1, 1, 127);
  EXPECT_EQ(ILunpackrle(out.data(), tile.data(), &i), 0);
  EXPECT_EQ(flerrno, FL_EFIT);
}

TEST(ILcodec, RunLengthRoundTripsEveryShape) {
  uint32_t w = 150, h = 12, stride = 160;
  for (uint32_t bytesPer : {1u, 2u, 4u})
    for (uint32_t bitmask : {1u, 4u, 7u, 14u, 15u}) {
      uint32_t channels = (bitmask == 14 || bitmask == 15 || bitmask == 4) ? 4 : uint32_t(__builtin_popcount(bitmask));
      std::vector<uint8_t> src(size_t(stride) * h * channels * bytesPer);
      for (size_t k = 0; k < src.size(); ++k) {
        size_t pixel = k / (channels * bytesPer);  // runs of 8 alike pixels, and some noise
        src[k] = uint8_t(pixel % 97 < 70 ? pixel / 8 * 7 + k % (channels * bytesPer) : (k * 13) ^ (k >> 3));
      }
      std::vector<uint8_t> out(src.size() + 16), back(src.size(), 0);
      ILpackinfo i = info(w, h, bytesPer, bitmask, channels);
      i.linewidth = stride;
      i.size = uint32_t(ILpackrle(out.data(), src.data(), &i));
      ASSERT_LT(i.size, uint32_t(w * h * bytesPer * __builtin_popcount(bitmask)))
          << "compressed " << bytesPer << " " << bitmask;
      ASSERT_NE(ILunpackrle(back.data(), out.data(), &i), 0);
      for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
          for (int n = 0; n < 4; ++n) {
            if (!((bitmask >> n) & 1)) continue;
            uint32_t mem = channels == 4 ? uint32_t(n + 3) % 4 : uint32_t(n);
            size_t at = ((size_t(y) * stride + x) * channels + mem) * bytesPer;
            ASSERT_EQ(std::memcmp(&back[at], &src[at], bytesPer), 0) << bytesPer << " " << bitmask;
          }
    }
}

TEST(ILcodec, QuickRunLengthDropsRedAndLeavesWorkingOrder) {
  const uint32_t w = 64, h = 4;
  std::vector<uint8_t> src(w * h * 4);
  for (uint32_t p = 0; p < w * h; ++p) {
    src[p * 4 + 0] = uint8_t(p / 16);        // blue, in runs
    src[p * 4 + 1] = uint8_t(100 + p / 8);   // green
    src[p * 4 + 2] = 77;                     // red: lost
    src[p * 4 + 3] = uint8_t(255 - p / 32);  // alpha
  }
  auto original = src;
  std::vector<uint8_t> out(src.size());
  ILpackinfo i = info(w, h, 1, 15, 4);
  i.size = uint32_t(ILpackqrl(out.data(), src.data(), &i));
  ASSERT_LT(i.size, w * h * 4);
  // The source now holds alpha, blue, green, red.
  EXPECT_EQ(src[0], original[3]);
  EXPECT_EQ(src[1], original[0]);
  EXPECT_EQ(src[3], original[2]);
  // The first row starts with a run of 8 alike pixels: green, blue, alpha.
  EXPECT_EQ(out[0], 0x87);
  EXPECT_EQ(out[1], original[1]);
  EXPECT_EQ(out[2], original[0]);
  EXPECT_EQ(out[3], original[3]);

  std::vector<uint8_t> back(src.size(), 0xEE);
  ASSERT_NE(ILunpackqrl(back.data(), out.data(), &i), 0);
  for (uint32_t p = 0; p < w * h; ++p) {
    EXPECT_EQ(back[p * 4 + 0], original[p * 4 + 0]);
    EXPECT_EQ(back[p * 4 + 1], original[p * 4 + 1]);
    EXPECT_EQ(back[p * 4 + 2], 0);
    EXPECT_EQ(back[p * 4 + 3], original[p * 4 + 3]);
  }

  // Three raw channels come back whole.
  std::vector<uint8_t> rgb(w * h * 3), out3(rgb.size()), back3(rgb.size());
  for (size_t k = 0; k < rgb.size(); ++k) rgb[k] = uint8_t(k / 30);
  ILpackinfo r = info(w, h, 1, 7, 3);
  r.size = uint32_t(ILpackqrl(out3.data(), rgb.data(), &r));
  ASSERT_LT(r.size, rgb.size());
  ASSERT_NE(ILunpackqrl(back3.data(), out3.data(), &r), 0);
  EXPECT_EQ(back3, rgb);
}

TEST(ILcodec, QuickFourChannelRunsAndReversedLiterals) {
  // A row: four equal pixels, then two different ones, 32 rows to get past stored.
  const uint32_t w = 6, h = 32;
  std::vector<uint8_t> src;
  for (uint32_t y = 0; y < h; ++y) {
    for (int k = 0; k < 4; ++k) src.insert(src.end(), {10, 20, 30, 40});
    src.insert(src.end(), {1, 2, 3, 4});
    src.insert(src.end(), {5, 6, 7, 8});
  }
  std::vector<uint8_t> out(src.size());
  ILpackinfo i = info(w, h, 1, 15, 4);
  i.size = uint32_t(ILpackqr4(out.data(), src.data(), &i));
  ASSERT_EQ(i.size, h * (5u + 9u));
  // Run: red, green, blue, alpha. Literal: alpha, blue, green, red.
  EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 14),
            bytes({0x83, 30, 20, 10, 40, 0x01, 4, 1, 2, 3, 8, 5, 6, 7}));
  std::vector<uint8_t> back(src.size());
  ASSERT_NE(ILunpackqr4(back.data(), out.data(), &i), 0);
  EXPECT_EQ(std::vector<uint8_t>(back.begin(), back.begin() + 4), bytes({10, 20, 30, 40}));
  // Literal pixels arrive with their channels crossed: the alpha, blue,
  // green, red bytes are read as red, green, blue, alpha.
  EXPECT_EQ(std::vector<uint8_t>(back.begin() + 16, back.begin() + 24), bytes({2, 1, 4, 3, 6, 5, 8, 7}));

  // All different pixels: the budget runs out and the tile is stored.
  std::vector<uint8_t> noise(64 * 4);
  for (size_t k = 0; k < noise.size(); ++k) noise[k] = uint8_t(k * 7);
  std::vector<uint8_t> out2(noise.size());
  ILpackinfo n = info(64, 1, 1, 15, 4);
  EXPECT_EQ(ILpackqr4(out2.data(), noise.data(), &n), 256);
}

TEST(ILcodec, DamagedPayloadsFailWithoutOverrun) {
  uint8_t dest[64 * 4] = {};
  // RLE: a run past the plane's end; a literal past the payload's end.
  std::vector<uint8_t> pastPlane = {0xFF, 1};
  ILpackinfo i = info(8, 1, 1, 1, 1, uint32_t(pastPlane.size()));
  EXPECT_EQ(ILunpackrle(dest, pastPlane.data(), &i), 0);
  EXPECT_EQ(flerrno, FL_EFIT);
  std::vector<uint8_t> pastEnd = {0x07, 1, 2};
  i.size = uint32_t(pastEnd.size());
  flerrno = 0;
  EXPECT_EQ(ILunpackrle(dest, pastEnd.data(), &i), 0);
  EXPECT_EQ(flerrno, FL_EFIT);
  // QRL and QR4: a packet past the row's end.
  std::vector<uint8_t> row = {0x85, 1, 2, 3};
  ILpackinfo q = info(4, 2, 1, 15, 4, uint32_t(row.size()));
  flerrno = 0;
  EXPECT_EQ(ILunpackqrl(dest, row.data(), &q), 0);
  EXPECT_EQ(flerrno, FL_EFIT);
  std::vector<uint8_t> row4 = {0x84, 1, 2, 3, 4};
  q.size = uint32_t(row4.size());
  flerrno = 0;
  EXPECT_EQ(ILunpackqr4(dest, row4.data(), &q), 0);
  EXPECT_EQ(flerrno, FL_EFIT);
  // Every truncation of a good payload fails cleanly.
  std::vector<uint8_t> src(64 * 4), out(src.size());
  for (size_t k = 0; k < src.size(); ++k) src[k] = uint8_t(k / 9);
  for (ILcodecfn pack : {ILpackrle, ILpackqrl, ILpackqr4}) {
    ILpackinfo p = info(64, 1, 1, 15, 4);
    auto copy = src;
    int n = pack(out.data(), copy.data(), &p);
    for (int cut = 1; cut < n; ++cut) {
      p.size = uint32_t(cut);
      ILunpackrle(dest, out.data(), &p);
      ILunpackqrl(dest, out.data(), &p);
      ILunpackqr4(dest, out.data(), &p);
    }
  }
}

TEST(ILcodec, CompressorTableAndTurning) {
  char name[IL_COMPNAMELEN];
  ILcodecfn pack = nullptr, unpack = nullptr;
  ILfindcompressor(0x10002, name, &pack, &unpack);
  EXPECT_STREQ(name, "QRL");
  EXPECT_EQ(pack, &ILpackqrl);
  EXPECT_EQ(unpack, &ILunpackqrl);
  ILfindcompressor(64, name, &pack, &unpack);
  EXPECT_STREQ(name, "");
  EXPECT_EQ(pack, nullptr);
  ILfindcompressor(9, name, &pack, nullptr);
  EXPECT_EQ(pack, nullptr);
  ILaddcompressor(31, "no", ILpack, ILunpack);
  ILaddcompressor(64, "no", ILpack, ILunpack);
  ILfindcompressor(31, name, &pack, nullptr);
  EXPECT_EQ(pack, nullptr);
  ILaddcompressor(40, "Mine", ILpack, ILunpack);
  ILfindcompressor(40, name, &pack, &unpack);
  EXPECT_STREQ(name, "Mine");
  EXPECT_EQ(unpack, &ILunpack);
  EXPECT_EQ(ildeflut[0], 0);
  EXPECT_EQ(ildeflut[200], 200);

  uint8_t px[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ILpackinfo i = info(2, 1, 1, 15, 4);
  ConvertBGRAtoABGR(px, &i);
  EXPECT_EQ(std::vector<uint8_t>(px, px + 8), bytes({4, 1, 2, 3, 8, 5, 6, 7}));
  ConvertABGRtoBGRA(px, &i);
  EXPECT_EQ(std::vector<uint8_t>(px, px + 8), bytes({1, 2, 3, 4, 5, 6, 7, 8}));
  i.channels = 3;
  ConvertBGRAtoABGR(px, &i);
  EXPECT_EQ(px[0], 1);  // only four-channel pixels turn
}

namespace {
// The run-length form's reference: the encoder's state machine byte by
// byte. Literal bytes gather until three alike end them (two alike at the
// start of a packet begin a run), runs and literals hold at most 128.
std::vector<uint8_t> referenceRle(const std::vector<uint8_t>& plane) {
  std::vector<uint8_t> out, buf;
  bool inRun = false;
  size_t mark = 0;
  uint8_t prev = uint8_t(plane[0] ^ 1);
  auto literal = [&](size_t n) {
    if (n == 0) return;
    out.push_back(uint8_t(n - 1));
    out.insert(out.end(), buf.begin(), buf.begin() + long(n));
  };
  auto run = [&](uint8_t v) {
    out.push_back(uint8_t(0x80 | (buf.size() - 1)));
    out.push_back(v);
  };
  for (uint8_t c : plane) {
    if (inRun) {
      if (c == prev && buf.size() < 128) {
        buf.push_back(c);
      } else {
        run(prev);
        inRun = false;
        buf.assign(1, c);
        mark = 0;
      }
    } else if (buf.size() >= 128) {
      literal(128);
      buf.assign(1, c);
      mark = 0;
    } else if (c == prev) {
      if (mark == 0) {
        inRun = true;
        buf.push_back(c);
      } else if (buf.size() - mark < 2) {
        buf.push_back(c);
      } else {
        literal(mark);
        buf.assign(3, c);
        mark = 0;
        inRun = true;
      }
    } else {
      mark = buf.size();
      buf.push_back(c);
    }
    prev = c;
  }
  if (inRun)
    run(prev);
  else
    literal(buf.size());
  return out;
}
}  // namespace

// Planes of every mix of runs and literals pack as the reference does.
TEST(ILcodec, RunLengthPackingMatchesItsReference) {
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u, seed >> 16; };
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<uint8_t> plane(16384, 7);  // a long run first: the result stays packed
    while (plane.size() < 16384 + 3000) {
      uint32_t kind = next() % 4, length = 1 + next() % (kind == 0 ? 300 : 6);
      uint8_t value = uint8_t(next() % (kind == 3 ? 3 : 256));
      for (uint32_t k = 0; k < length; ++k) plane.push_back(kind == 1 ? uint8_t(next()) : value);
    }
    std::vector<uint8_t> out(plane.size());
    ILpackinfo i = info(uint32_t(plane.size()), 1, 1, 1, 1);
    int n = ILpackrle(out.data(), plane.data(), &i);
    std::vector<uint8_t> expected = referenceRle(plane);
    ASSERT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + n), expected) << "trial " << trial;
  }
}
