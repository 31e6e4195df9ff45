#include "kelpimage/photoshop/tchannel.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <random>

#include "kelpimage/photoshop/tpixeldata16.h"

using namespace zkPhotoshop;

namespace {

std::vector<uint8_t> pack(const std::vector<uint8_t>& row) {
  std::vector<uint8_t> out(row.size() + row.size() / 4 + 2);
  out.resize(packRow(out.data(), row.data(), row.size()));
  return out;
}

std::vector<uint8_t> deflated(const std::vector<uint8_t>& bytes) {
  uLongf size = compressBound(uLong(bytes.size()));
  std::vector<uint8_t> out(size);
  compress(out.data(), &size, bytes.data(), uLong(bytes.size()));
  out.resize(size);
  return out;
}

std::vector<uint8_t> bytes(const TsampleBuffer& b) { return {b.begin(), b.end()}; }

uint16_t sample16(Tchannel& ch, uint32_t i) { return uint16_t(ch.value(i)); }

}  // namespace

TEST(PackRow, RunsLiteralsAndTheirMerging) {
  // Runs past 128 go out as repeated 128-byte runs.
  std::vector<uint8_t> run(300, 9);
  EXPECT_EQ(pack(run), (std::vector<uint8_t>{129, 9, 129, 9, 0xD5, 9}));
  // A run of two between literals folds back into one literal.
  EXPECT_EQ(pack({'a', 'b', 'b', 'c'}), (std::vector<uint8_t>{3, 'a', 'b', 'b', 'c'}));
  // A longer run stays a run.
  EXPECT_EQ(pack({'a', 'b', 'b', 'b', 'c'}), (std::vector<uint8_t>{0, 'a', 0xFE, 'b', 0, 'c'}));
  // A run of two at the start is a run.
  EXPECT_EQ(pack({'b', 'b', 'c'}), (std::vector<uint8_t>{0xFF, 'b', 0, 'c'}));
  // A literal stops at 128 bytes.
  std::vector<uint8_t> ramp(130);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i);
  std::vector<uint8_t> packed = pack(ramp);
  ASSERT_EQ(packed.size(), 132u);
  EXPECT_EQ(packed[0], 127);
  EXPECT_EQ(packed[129], 1);
  // A run past 128 ends in a run of two that stays a run: folding it would
  // move its bytes across the 128 before it.
  std::vector<uint8_t> split{'a'};
  split.insert(split.end(), 130, 'b');
  split.push_back('c');
  EXPECT_EQ(pack(split), (std::vector<uint8_t>{0, 'a', 129, 'b', 0xFF, 'b', 0, 'c'}));
  // A single byte between runs of two grows the row by a fifth, the most.
  std::vector<uint8_t> worst;
  for (uint8_t v = 0; worst.size() < 500; v = uint8_t(v + 3))
    worst.insert(worst.end(), {v, uint8_t(v + 1), uint8_t(v + 1), uint8_t(v + 2), uint8_t(v + 2)});
  EXPECT_LE(pack(worst).size(), worst.size() + worst.size() / 4 + 2);
  // And every packing expands back.
  for (const auto& row : {run, ramp, split, worst, std::vector<uint8_t>{1, 1, 2, 3, 3, 4, 4, 4, 5}}) {
    std::vector<uint8_t> back(row.size());
    std::vector<uint8_t> p = pack(row);
    ASSERT_TRUE(unpackRow8(back.data(), p.data(), p.size(), back.size()));
    EXPECT_EQ(back, row);
  }
}

TEST(PackRow, DamagedRowsNeverRunPastTheirEnds) {
  uint8_t out[4] = {};
  const uint8_t tooLong[] = {0xFB, 1};  // a run of 6 into 4 bytes
  EXPECT_FALSE(unpackRow8(out, tooLong, 2, 4));
  const uint8_t cut[] = {5, 1, 2};  // a literal of 6 with 2 bytes given
  EXPECT_FALSE(unpackRow8(out, cut, 3, 4));
  const uint8_t shortRow[] = {0xFF, 3};
  EXPECT_FALSE(unpackRow8(out, shortRow, 2, 4));
  const uint8_t skipped[] = {0x80, 0xFD, 3};  // -128 is skipped
  EXPECT_TRUE(unpackRow8(out, skipped, 3, 4));
  EXPECT_EQ(out[3], 3);
}

TEST(Tchannel, ExpandsEachMethodAsTheFileHasIt) {
  // Run-length, 8 bits, table at the head of the data (a layer channel).
  Tchannel rle(3, 2, dataFormat8);
  rle.fCompression = compressionRLE;
  rle.setCompressed({0, 2, 0, 4, 0xFE, 5, 2, 1, 2, 3}, 10);
  ASSERT_TRUE(rle.plausible());
  const uint8_t* raw = rle.rawPointer();
  EXPECT_FALSE(rle.expandFailed());
  EXPECT_EQ(std::vector<uint8_t>(raw, raw + 6), (std::vector<uint8_t>{5, 5, 5, 1, 2, 3}));

  // Run-length, 16 bits: rows pack the big-endian bytes.
  Tchannel rle16(2, 1, dataFormat16);
  rle16.fCompression = compressionRLE;
  rle16.setCompressed({0, 5, 3, 0x12, 0x34, 0xAB, 0xCD}, 7);
  rle16.rawPointer();
  EXPECT_EQ(sample16(rle16, 0), 0x1234);
  EXPECT_EQ(sample16(rle16, 1), 0xABCD);

  // Raw 16 bits are big-endian.
  Tchannel raw16(2, 1, dataFormat16);
  raw16.fCompression = compressionRaw;
  raw16.setCompressed({0x01, 0x02, 0xFF, 0x00}, 4);
  raw16.rawPointer();
  EXPECT_EQ(sample16(raw16, 0), 0x0102);
  EXPECT_EQ(sample16(raw16, 1), 0xFF00);

  // Zip with prediction: differences along each row, in the sample width.
  Tchannel zp(3, 1, dataFormat16);
  zp.fCompression = compressionZipPredict;
  std::vector<uint8_t> z = deflated({0x00, 0x10, 0xFF, 0xFF, 0x00, 0x02});  // 16, -1, +2
  zp.setCompressed(z, uint32_t(z.size()));
  zp.rawPointer();
  EXPECT_EQ(sample16(zp, 0), 16);
  EXPECT_EQ(sample16(zp, 1), 15);
  EXPECT_EQ(sample16(zp, 2), 17);

  // Zip without prediction is read too.
  Tchannel zip(2, 1, dataFormat8);
  zip.fCompression = compressionZip;
  z = deflated({7, 200});
  zip.setCompressed(z, uint32_t(z.size()));
  zip.rawPointer();
  EXPECT_EQ(zip.value(1), 200u);
}

TEST(Tchannel, DamagedBytesFailAndLeaveTheFill) {
  Tchannel ch(4, 1, dataFormat8);
  ch.fill(9);
  ch.fCompression = compressionRLE;
  ch.setCompressed({0, 6, 0xFB, 1, 0, 0, 0, 0}, 8);  // a run past the row
  ch.rawPointer();
  EXPECT_TRUE(ch.expandFailed());
  EXPECT_EQ(ch.value(0), 9u);

  Tchannel zip(16, 16, dataFormat8);
  zip.fCompression = compressionZip;
  zip.setCompressed({0x78, 0x9C, 1, 2, 3}, 5);
  zip.rawPointer();
  EXPECT_TRUE(zip.expandFailed());

  // Sizes no data of that length can hold are refused before allocation.
  Tchannel huge(30000, 30000, dataFormat8);
  huge.fCompression = compressionRLE;
  huge.setCompressed(std::vector<uint8_t>(100), 100);
  EXPECT_FALSE(huge.plausible());
  huge.fCompression = 7;
  EXPECT_FALSE(huge.plausible());
}

TEST(Tchannel, CompressesSoThatExpandGivesTheSamplesBack) {
  for (TdataFormat format : {dataFormat8, dataFormat16}) {
    for (int method : {compressionRaw, compressionRLE, compressionZip, compressionZipPredict}) {
      for (bool separate : {false, true}) {
        Tchannel ch(300, 3, format);
        for (uint32_t i = 0; i < ch.fPixelCount; ++i) ch.setValue(i, (i / 7) * 37 % 65536);
        TsampleBuffer before = ch.fRaw;
        ch.fCompression = method;
        ASSERT_TRUE(ch.compress(separate));
        EXPECT_EQ(ch.fRaw, before) << "the samples stay as they were";
        Tchannel back(300, 3, format);
        back.fCompression = method;
        back.fRowLengths = ch.fRowLengths;
        back.setCompressed(ch.fCompressed, ch.fDataLength);
        ASSERT_TRUE(back.plausible());
        back.rawPointer();
        EXPECT_FALSE(back.expandFailed()) << format << " " << method;
        EXPECT_EQ(back.fRaw, before) << format << " " << method << " " << separate;
      }
    }
  }
}

TEST(Tchannel, SpansAndCopies) {
  Tchannel a(4, 1, dataFormat8), b(4, 1, dataFormat8);
  for (uint32_t i = 0; i < 4; ++i) b.setValue(i, 10 + i);
  a.copySpan(1, 2, 2, b);
  EXPECT_EQ(bytes(a.fRaw), (std::vector<uint8_t>{0, 12, 13, 0}));
  a.copySpan(0, 0, 4, b);  // at the end: nothing to copy, no harm
  a.copySpan(3, 2, 0, b);  // would run past the target: refused
  EXPECT_EQ(bytes(a.fRaw), (std::vector<uint8_t>{0, 12, 13, 0}));
  Tchannel wide(4, 1, dataFormat16);
  EXPECT_THROW(a.copySpan(0, 1, 0, wide), const char*);
  EXPECT_THROW(a.copyPixels(wide), const char*);
  Tchannel bad(1, 1, TdataFormat(5));
  EXPECT_THROW(bad.ensureRaw(), const char*);
}

TEST(TpixelData16, ChannelsOpacityAndAnd) {
  TpixelData16 empty(dataFormat8);
  empty.initialize(255, 0);
  EXPECT_EQ(empty.fChannels.size(), 3u);
  EXPECT_EQ(empty.channel(0), nullptr);
  EXPECT_EQ(empty.getRedPixelPtr(), nullptr);

  TpixelData16 p(dataFormat8, 2, 1, false);
  EXPECT_EQ(p.channel(channelRed)->value(0), 255u);
  p.addChannel(channelTransparency, 2, 1, 200);
  p.addChannel(channelTransparency, 2, 1, 100);
  EXPECT_EQ(p.channelCount(), 4);
  EXPECT_EQ(p.channel(channelTransparency)->value(1), 100u);

  // k = opacity * (1/255 as a float), products truncated.
  p.applyOpacity(128);
  EXPECT_EQ(p.channel(channelRed)->value(0), 128u);
  EXPECT_EQ(p.channel(channelTransparency)->value(0), 50u);
  p.applyOpacity(0);
  EXPECT_EQ(p.channel(channelGreen)->value(1), 0u);

  uint8_t dst[3] = {255, 127, 200};
  const uint8_t mask[3] = {128, 128, 0xFF};
  p.memAND(dst, mask, 3);
  EXPECT_EQ(dst[0], 128);
  EXPECT_EQ(dst[1], 0);
  EXPECT_EQ(dst[2], 200);

  // A copy owns its own channels; compressed bytes come along unexpanded.
  TpixelData16 q(dataFormat8, 2, 1, false);
  q.channel(0)->fCompression = compressionRaw;
  q.channel(0)->setCompressed({3, 4}, 2);
  TpixelData16 copy(q);
  EXPECT_NE(copy.channel(0), q.channel(0));
  EXPECT_EQ(copy.channel(0)->value(1), 0u);  // the fill, until expanded
  EXPECT_EQ(copy.getRedPixelPtr()[1], 4);
  EXPECT_EQ(copy.channel(0)->value(1), 4u);
}

TEST(TpixelData16, CopyRectPlacesRowsAndAddsChannels) {
  TpixelData16 layer(dataFormat8, 2, 2, false);
  layer.addChannel(channelTransparency, 2, 2, 0);
  for (uint32_t i = 0; i < 4; ++i) {
    layer.setRed(i, 10 + i);
    layer.setTrans(i, 100 + i);
  }
  TpixelData16 canvas(dataFormat8, 4, 3, false);
  TlRect rect{1, 2, 3, 4};
  canvas.copyRect(rect, TlPoint{}, layer, 4, 3);
  EXPECT_EQ(bytes(canvas.channel(channelRed)->fRaw),
            (std::vector<uint8_t>{255, 255, 255, 255, 255, 255, 10, 11, 255, 255, 12, 13}));
  EXPECT_EQ(bytes(canvas.channel(channelTransparency)->fRaw),
            (std::vector<uint8_t>{0, 0, 0, 0, 0, 0, 100, 101, 0, 0, 102, 103}));
}

namespace {

// The packer's four states, one byte at a time, as the reference for the
// packer's faster steps.
std::vector<uint8_t> referencePack(const std::vector<uint8_t>& src) {
  enum { BASE, LITERAL, RUN, LITERAL_RUN } state = BASE;
  std::vector<uint8_t> out;
  size_t literal = 0, control = 0;
  auto run = [&](size_t n, uint8_t b) {
    for (; n > 128; n -= 128) control = out.size(), out.push_back(129), out.push_back(b);
    control = out.size();
    out.push_back(uint8_t(1 - int(n)));
    out.push_back(b);
  };
  for (size_t i = 0; i < src.size();) {
    uint8_t b = src[i];
    size_t n = 1;
    while (i + n < src.size() && src[i + n] == b) ++n;
    i += n;
    for (bool again = true; again;) {
      again = false;
      if (state == BASE || state == RUN) {
        if (n >= 2) {
          state = RUN;
          run(n, b);
        } else {
          literal = out.size();
          out.push_back(0);
          out.push_back(b);
          state = LITERAL;
        }
      } else if (state == LITERAL) {
        if (n >= 2) {
          state = LITERAL_RUN;
          run(n, b);
        } else {
          if (++out[literal] == 127) state = BASE;
          out.push_back(b);
        }
      } else {
        if (n == 1 && out[control] == 0xFF && out[literal] < 126) {
          out[literal] = uint8_t(out[literal] + 2);
          state = out[literal] == 127 ? BASE : LITERAL;
          out[control] = out[control + 1];
        } else {
          state = RUN;
        }
        again = true;
      }
    }
  }
  return out;
}

}  // namespace

TEST(PackRow, AgreesWithTheByteByByteStates) {
  std::mt19937 random(11);
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> row(1 + random() % 700);
    int alphabet = 2 + int(random() % 40);
    for (auto& v : row) v = uint8_t(random() % uint32_t(alphabet));
    if (round % 3 == 0)
      for (size_t k = 0; k < row.size(); ++k) row[k] = uint8_t(k * (round % 7 + 1));  // long literals
    ASSERT_EQ(pack(row), referencePack(row)) << "round " << round;
  }
}
