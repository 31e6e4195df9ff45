// Reading and writing through the one way in and out: every format the
// catalogue writes read back, at 8 and 16 bits, halves and floats; memory
// beside files; association; frames; regions; options; damaged bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "kelpimage/io/tconvert.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/io/timagewriter.h"
#include "testutil.h"

using namespace kelptest;

namespace {

constexpr int kW = 37, kH = 23;

TimageInfo specOf(int channels, bool alpha, TsampleType type) {
  TimageInfo s;
  s.width = kW;
  s.height = kH;
  s.colorChannels = channels;
  s.alpha = alpha;
  s.sampleType = type;
  s.bits = int(TsampleBytes(type) * 8);
  return s;
}

// 16-bit samples with every bit used; alpha opaque unless `seeThrough`.
std::vector<uint16_t> pattern(const TimageInfo& s, bool seeThrough = false) {
  std::vector<uint16_t> px(size_t(s.width) * size_t(s.height) * size_t(s.channels()));
  for (size_t i = 0; i < px.size(); ++i) {
    size_t pixel = i / size_t(s.channels());
    int c = int(i % size_t(s.channels()));
    bool isAlpha = s.alpha && c == s.colorChannels;
    px[i] = isAlpha ? (seeThrough ? uint16_t((pixel * 2111) % 65536) : 65535)
                    : uint16_t((pixel * 977 + size_t(c) * 21341 + (pixel % 7) * 3) % 65536);
  }
  return px;
}

std::vector<uint8_t> to8(const std::vector<uint16_t>& px) {
  std::vector<uint8_t> out(px.size());
  for (size_t i = 0; i < px.size(); ++i) out[i] = uint8_t((px[i] * 255u + 32767u) / 65535u);
  return out;
}

std::vector<uint8_t> readAll(TimageReader& r, TsampleType type, Tassociation a = Tassociation::kStraight) {
  std::vector<uint8_t> px(r.spec().rowBytes(type) * size_t(r.spec().height));
  EXPECT_TRUE(r.readImage(px.data(), type, 0, a)) << r.error();
  return px;
}

bool write(const std::string& path, const TimageInfo& spec, const void* px, TsampleType type,
           const TwriteOptions& options = {}, std::string* error = nullptr) {
  TimageWriter w;
  bool ok = w.create(path, spec, options) && w.writeImage(px, type) && w.close();
  if (error) *error = w.error();
  return ok;
}

int largestDifference(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  int most = a.size() == b.size() ? 0 : 256;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) most = std::max(most, std::abs(int(a[i]) - int(b[i])));
  return most;
}

struct Case {
  const char* key;
  const char* extension;
  int tolerance;  // the largest difference of an 8-bit sample read back
};

class EveryFormat : public ::testing::TestWithParam<Case> {};

TEST_P(EveryFormat, EightBitsComeBack) {
  const Case& c = GetParam();
  TempDir dir;
  TformatInfo info;
  ASSERT_TRUE(TformatCatalogue::find(c.key, info));
  TimageInfo spec = specOf(3, info.alpha, TsampleType::kUint8);
  std::vector<uint8_t> px = to8(pattern(spec));
  std::string path = dir.file(std::string("p.") + c.extension), error;
  ASSERT_TRUE(write(path, spec, px.data(), TsampleType::kUint8, {}, &error)) << error;
  TimageReader r;
  ASSERT_TRUE(r.open(path)) << r.error();
  EXPECT_EQ(r.format().key, c.key);
  EXPECT_EQ(r.spec().width, kW);
  EXPECT_EQ(r.spec().height, kH);
  // Whatever the file holds, the caller gets what it asks for.
  std::vector<uint8_t> back = readAll(r, TsampleType::kUint8);
  if (c.tolerance == 255) return;  // a palette of the colour cube, on a canvas of its own
  if (r.spec().channels() != spec.channels()) {
    // An alpha all opaque may be left out (WebP does); the colour stays.
    ASSERT_EQ(r.spec().channels(), 3);
    std::vector<uint8_t> colour;
    for (size_t i = 0; i < px.size(); ++i)
      if (i % 4 != 3) colour.push_back(px[i]);
    px = colour;
  }
  EXPECT_LE(largestDifference(back, px), c.tolerance);
  // The same bytes from memory, by the bytes alone.
  std::vector<uint8_t> file = readBytes(path);
  TimageReader m;
  ASSERT_TRUE(m.openMemory(file.data(), file.size(), "held")) << m.error();
  EXPECT_EQ(m.format().key, c.key);
  EXPECT_EQ(readAll(m, TsampleType::kUint8), back);
}

TEST_P(EveryFormat, WrittenToMemoryAsToAFile) {
  const Case& c = GetParam();
  TformatInfo info;
  ASSERT_TRUE(TformatCatalogue::find(c.key, info));
  TimageInfo spec = specOf(3, false, TsampleType::kUint8);
  std::vector<uint8_t> px = to8(pattern(spec));
  std::vector<uint8_t> bytes;
  TimageWriter w;
  ASSERT_TRUE(w.createMemory(bytes, c.key, spec)) << w.error();
  ASSERT_TRUE(w.writeImage(px.data(), TsampleType::kUint8)) << w.error();
  ASSERT_TRUE(w.close()) << w.error();
  TempDir dir;
  std::string path = dir.file(std::string("p.") + c.extension);
  ASSERT_TRUE(write(path, spec, px.data(), TsampleType::kUint8));
  EXPECT_EQ(bytes, readBytes(path));
}

INSTANTIATE_TEST_SUITE_P(IO, EveryFormat,
                         ::testing::Values(Case{"kelp", "iff", 0}, Case{"sgi", "sgi", 0}, Case{"psd", "psd", 0},
                                           Case{"png", "png", 0}, Case{"tif", "tif", 0}, Case{"bmp", "bmp", 0},
                                           Case{"tga", "tga", 0}, Case{"pnm", "ppm", 0}, Case{"exr", "exr", 0},
                                           Case{"jpg", "jpg", 40}, Case{"webp", "webp", 40}, Case{"hdr", "hdr", 8},
                                           Case{"gif", "gif", 255}),
                         [](const auto& info) { return std::string(info.param.key); });

}  // namespace

namespace {

struct Wide {
  const char* key;
  const char* extension;
  TsampleType type;
  int colorChannels;
};

class WideFormats : public ::testing::TestWithParam<Wide> {};

// Samples wider than 8 bits come back as they went, and the file says what it holds.
TEST_P(WideFormats, SamplesComeBackExactly) {
  const Wide& c = GetParam();
  TempDir dir;
  TformatInfo info;
  ASSERT_TRUE(TformatCatalogue::find(c.key, info));
  TimageInfo spec = specOf(c.colorChannels, info.alpha, c.type);
  std::vector<uint16_t> wide = pattern(spec);
  std::vector<uint8_t> px(spec.rowBytes(c.type) * kH);
  std::vector<float> f(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) f[i] = float(wide[i]) / 65535.0f;
  std::memcpy(px.data(), c.type == TsampleType::kFloat ? static_cast<void*>(f.data()) : wide.data(), px.size());
  std::string path = dir.file(std::string("w.") + c.extension), error;
  ASSERT_TRUE(write(path, spec, px.data(), c.type, {}, &error)) << error;
  TimageReader r;
  ASSERT_TRUE(r.open(path)) << r.error();
  EXPECT_EQ(r.spec().sampleType, c.type);
  EXPECT_EQ(r.spec().colorChannels, c.colorChannels);
  EXPECT_EQ(readAll(r, c.type), px);
}

INSTANTIATE_TEST_SUITE_P(
    IO, WideFormats,
    ::testing::Values(Wide{"kelp", "iff", TsampleType::kUint16, 3}, Wide{"sgi", "sgi", TsampleType::kUint16, 3},
                      Wide{"psd", "psd", TsampleType::kUint16, 3}, Wide{"png", "png", TsampleType::kUint16, 3},
                      Wide{"png", "png", TsampleType::kUint16, 1}, Wide{"tif", "tif", TsampleType::kUint16, 3},
                      Wide{"tif", "tif", TsampleType::kFloat, 3}, Wide{"pnm", "pam", TsampleType::kUint16, 1},
                      Wide{"exr", "exr", TsampleType::kFloat, 3}),
    [](const auto& info) {
      return std::string(info.param.key) + TsampleName(info.param.type) + std::to_string(info.param.colorChannels);
    });

}  // namespace

namespace {

std::vector<float> floats(const std::vector<uint16_t>& px) {
  std::vector<float> f(px.size());
  for (size_t i = 0; i < px.size(); ++i) f[i] = float(px[i]) / 65535.0f;
  return f;
}

// Halves: the writer rounds the caller's floats, and the file says it holds halves.
TEST(ImageIO, HalvesThroughOpenExr) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kHalf);
  std::vector<float> px = floats(pattern(spec, true));
  px[0] = 3.5f;  // past 1, as renderers write light
  TimageWriter w;
  ASSERT_TRUE(w.create(dir.file("h.exr"), spec)) << w.error();
  EXPECT_EQ(w.spec().sampleType, TsampleType::kHalf);
  ASSERT_TRUE(w.writeImage(px.data(), TsampleType::kFloat, 0, Tassociation::kPremultiplied) && w.close()) << w.error();
  TimageReader r;
  ASSERT_TRUE(r.open(dir.file("h.exr"))) << r.error();
  EXPECT_EQ(r.spec().sampleType, TsampleType::kHalf);
  EXPECT_EQ(r.spec().association, Tassociation::kPremultiplied);
  std::vector<float> back(px.size());
  ASSERT_TRUE(r.readImage(back.data(), TsampleType::kFloat, 0, Tassociation::kPremultiplied)) << r.error();
  for (size_t i = 0; i < px.size(); ++i) ASSERT_NEAR(back[i], px[i], std::abs(px[i]) / 1024.0f + 1e-7f) << i;
}

// The caller's association becomes the file's: IFF keeps colour
// premultiplied, PNG straight; each reads back as it was handed in.
TEST(ImageIO, AssociationFollowsTheFile) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kUint16);
  std::vector<uint16_t> straight = pattern(spec, true);
  std::vector<uint16_t> premultiplied = straight;
  for (size_t i = 0; i < premultiplied.size(); i += 4)
    for (size_t c = 0; c < 3; ++c)
      premultiplied[i + c] = uint16_t((uint32_t(straight[i + c]) * straight[i + 3] + 32767) / 65535);
  for (const char* name : {"a.iff", "a.png", "a.tif", "a.exr", "a.sgi"}) {
    SCOPED_TRACE(name);
    std::string path = dir.file(name);
    TimageWriter w;
    ASSERT_TRUE(w.create(path, spec)) << w.error();
    ASSERT_TRUE(w.writeImage(straight.data(), TsampleType::kUint16) && w.close()) << w.error();
    TimageReader r;
    ASSERT_TRUE(r.open(path)) << r.error();
    std::vector<uint16_t> back(straight.size());
    ASSERT_TRUE(r.readImage(back.data(), TsampleType::kUint16, 0, Tassociation::kPremultiplied)) << r.error();
    for (size_t i = 0; i < back.size(); ++i) ASSERT_NEAR(back[i], premultiplied[i], 2) << i;
    ASSERT_TRUE(r.readImage(back.data(), TsampleType::kUint16)) << r.error();
    // Colour under little alpha keeps what the alpha can hold of it.
    for (size_t i = 0; i < back.size(); ++i) {
      uint16_t alpha = straight[i - i % 4 + 3];
      if (alpha > 1024) {
        ASSERT_NEAR(back[i], straight[i], 65535.0 / alpha + 1) << i;
      }
    }
  }
}

// Depth goes to the formats that hold it, as IFF keeps it.
TEST(ImageIO, DepthThroughIffAndOpenExr) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kUint8);
  spec.depth = true;
  std::vector<uint8_t> px = to8(pattern(spec));
  std::vector<float> z(size_t(kW) * kH);
  for (size_t i = 0; i < z.size(); ++i) z[i] = i % 5 ? -1.0f / (1.0f + float(i)) : 0.0f;
  for (const char* name : {"d.iff", "d.exr"}) {
    SCOPED_TRACE(name);
    TimageWriter w;
    ASSERT_TRUE(w.create(dir.file(name), spec) &&
                w.writeImage(px.data(), TsampleType::kUint8, 0, Tassociation::kStraight, z.data()) && w.close())
        << w.error();
    TimageReader r;
    ASSERT_TRUE(r.open(dir.file(name))) << r.error();
    ASSERT_TRUE(r.spec().depth);
    std::vector<float> back(z.size());
    std::vector<uint8_t> colour(px.size());
    ASSERT_TRUE(r.readImage(colour.data(), TsampleType::kUint8, 0, Tassociation::kStraight, back.data()));
    EXPECT_EQ(back, z);
  }
  // A format without depth leaves it out, and says so.
  TimageWriter w;
  ASSERT_TRUE(w.create(dir.file("d.png"), spec)) << w.error();
  EXPECT_FALSE(w.spec().depth);
  EXPECT_NE(w.warnings().find("depth"), std::string::npos);
  EXPECT_TRUE(w.writeImage(px.data(), TsampleType::kUint8, 0, Tassociation::kStraight, z.data()) && w.close());
}

// Regions and rows in any order are the whole picture's.
TEST(ImageIO, RegionsAndRowsInAnyOrder) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kUint8);
  std::vector<uint8_t> px = to8(pattern(spec));
  for (const char* name : {"r.iff", "r.png", "r.psd", "r.sgi"}) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(write(dir.file(name), spec, px.data(), TsampleType::kUint8));
    TimageReader r;
    ASSERT_TRUE(r.open(dir.file(name))) << r.error();
    std::vector<uint8_t> whole = readAll(r, TsampleType::kUint8);
    const size_t row = size_t(kW) * 4;
    std::vector<uint8_t> tile(size_t(10) * 5 * 4);
    ASSERT_TRUE(r.readRegion(20, 15, 30, 20, tile.data(), TsampleType::kUint8)) << r.error();
    for (int y = 0; y < 5; ++y)
      ASSERT_EQ(0, std::memcmp(tile.data() + size_t(y) * 40, whole.data() + size_t(15 + y) * row + 80, 40));
    std::vector<uint8_t> one(row);
    for (int y : {17, 3, 22, 0}) {
      ASSERT_TRUE(r.readRows(y, y + 1, one.data(), TsampleType::kUint8)) << r.error();
      ASSERT_EQ(0, std::memcmp(one.data(), whole.data() + size_t(y) * row, row)) << y;
    }
    EXPECT_FALSE(r.readRows(20, 24, one.data(), TsampleType::kUint8));
    EXPECT_NE(r.error().find("outside"), std::string::npos) << r.error();
  }
}

// Pictures of several frames: each comes back at its own size.
TEST(ImageIO, FramesComeBackInTurn) {
  TempDir dir;
  for (const char* name : {"f.tif", "f.psd", "f.gif"}) {
    SCOPED_TRACE(name);
    TimageInfo first = specOf(3, false, TsampleType::kUint8), second = first;
    second.width = 11;
    second.height = 9;
    if (std::string(name) != "f.tif") second = first;  // layers and GIF frames take the first's size
    std::vector<uint8_t> a(first.rowBytes(TsampleType::kUint8) * size_t(first.height), 40);
    std::vector<uint8_t> b(second.rowBytes(TsampleType::kUint8) * size_t(second.height), 200);
    TimageWriter w;
    ASSERT_TRUE(w.create(dir.file(name), first)) << w.error();
    ASSERT_TRUE(w.writeImage(a.data(), TsampleType::kUint8) && w.nextFrame(second) &&
                w.writeImage(b.data(), TsampleType::kUint8) && w.close())
        << w.error();
    TimageReader r;
    ASSERT_TRUE(r.open(dir.file(name))) << r.error();
    // A document's first frame is its flattened image; its layers follow.
    const int layers = std::string(name) == "f.psd" ? 1 : 0;
    ASSERT_EQ(r.spec().frames, 2 + layers);
    ASSERT_TRUE(r.seekFrame(1 + layers)) << r.error();
    EXPECT_EQ(r.spec().width, second.width);
    std::vector<uint8_t> back(r.spec().rowBytes(TsampleType::kUint8) * size_t(r.spec().height));
    ASSERT_TRUE(r.readImage(back.data(), TsampleType::kUint8)) << r.error();
    EXPECT_NEAR(back[0], 200, 8);  // GIF: the nearest colour of its cube
    EXPECT_FALSE(r.seekFrame(2 + layers));
  }
}

// Options are the format's own, within their ranges; a refusal writes nothing.
TEST(ImageIO, OptionsAreCheckedBeforeAnythingIsWritten) {
  TempDir dir;
  TimageInfo spec = specOf(3, false, TsampleType::kUint8);
  std::vector<uint8_t> px = to8(pattern(spec));
  TwriteOptions quality;
  quality.set("Quality", 101);
  std::string error;
  EXPECT_FALSE(write(dir.file("o.jpg"), spec, px.data(), TsampleType::kUint8, quality, &error));
  EXPECT_NE(error.find("\"Quality\" takes 1 to 100"), std::string::npos) << error;
  EXPECT_NE(error.find(", not 101"), std::string::npos) << error;
  TwriteOptions foreign;
  foreign.set("Tile Width", 64);
  EXPECT_FALSE(write(dir.file("o.png"), spec, px.data(), TsampleType::kUint8, foreign, &error));
  EXPECT_NE(error.find("has no option \"Tile Width\""), std::string::npos) << error;
  EXPECT_FALSE(write(dir.file("o.unknown"), spec, px.data(), TsampleType::kUint8, {}, &error));
  EXPECT_EQ(error.rfind(dir.file("o.unknown") + ": ", 0), 0u) << error;
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  quality.set("quality", 35);  // names in any case
  EXPECT_TRUE(write(dir.file("o.jpg"), spec, px.data(), TsampleType::kUint8, quality, &error)) << error;
}

// A file is whole or not there: a writer given up, or destroyed before its
// close, or short of rows leaves what was at its target.
TEST(ImageIO, AFileIsWholeOrAsItWas) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kUint8);
  std::vector<uint8_t> px = to8(pattern(spec));
  std::string path = dir.file("k.png");
  writeBytes(path, {'o', 'l', 'd'});
  {
    TimageWriter w;
    ASSERT_TRUE(w.create(path, spec) && w.writeRows(0, 5, px.data(), TsampleType::kUint8));
  }
  EXPECT_EQ(readBytes(path), (std::vector<uint8_t>{'o', 'l', 'd'}));
  TimageWriter w;
  ASSERT_TRUE(w.create(path, spec) && w.writeRows(0, 5, px.data(), TsampleType::kUint8));
  EXPECT_FALSE(w.writeRows(7, 8, px.data(), TsampleType::kUint8));
  EXPECT_FALSE(w.close());
  EXPECT_NE(w.error().find("only 5 of 23 rows"), std::string::npos) << w.error();
  EXPECT_EQ(readBytes(path), (std::vector<uint8_t>{'o', 'l', 'd'}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
}

// Bytes cut short, or changed, are an error naming the bytes: never a
// crash, never a picture made up.
TEST(ImageIO, DamagedBytesAreRefusedByName) {
  TimageInfo spec = specOf(3, true, TsampleType::kUint8);
  std::vector<uint8_t> px = to8(pattern(spec));
  for (const TformatInfo& f : TformatCatalogue::formats()) {
    if (!f.canWrite) continue;
    SCOPED_TRACE(f.key);
    std::vector<uint8_t> file;
    TimageWriter w;
    ASSERT_TRUE(w.createMemory(file, f.key, spec) && w.writeImage(px.data(), TsampleType::kUint8) && w.close())
        << w.error();
    for (size_t cut : {size_t(0), size_t(7), file.size() / 3, file.size() * 2 / 3, file.size() - 1}) {
      std::vector<uint8_t> part(file.begin(), file.begin() + std::ptrdiff_t(cut));
      TimageReader r;
      std::vector<uint8_t> back(px.size());
      TreadOptions options;
      options.key = cut < 16 ? f.key : "";
      bool ok = r.openMemory(part.data(), part.size(), "cut", options) && r.readImage(back.data(), TsampleType::kUint8);
      // The last byte may be a trailer that no pixel needs.
      if (cut + 1 < file.size()) {
        EXPECT_FALSE(ok) << cut;
      }
      if (!ok) {
        EXPECT_EQ(r.error().rfind("cut: ", 0), 0u) << r.error();
      }
    }
  }
}

}  // namespace

namespace {

// Samples change kind by one rule: integers scale, rounded; floats are 0 to 1.
TEST(ImageIO, SamplesConvertByOneRule) {
  TempDir dir;
  TimageInfo spec = specOf(3, false, TsampleType::kUint16);
  std::vector<uint16_t> wide = pattern(spec);
  ASSERT_TRUE(write(dir.file("c.png"), spec, wide.data(), TsampleType::kUint16));
  TimageReader r;
  ASSERT_TRUE(r.open(dir.file("c.png"))) << r.error();
  EXPECT_EQ(readAll(r, TsampleType::kUint8), to8(wide));
  std::vector<float> f(wide.size());
  ASSERT_TRUE(r.readImage(f.data(), TsampleType::kFloat));
  std::vector<float> expected = floats(wide);
  for (size_t i = 0; i < f.size(); ++i) ASSERT_NEAR(f[i], expected[i], 1e-7f) << i;
  // Floats past 1 or below 0 clamp on their way to integers.
  TimageInfo bright = specOf(1, false, TsampleType::kFloat);
  std::vector<float> light(size_t(kW) * kH, 2.5f);
  light[1] = -1.0f;
  light[2] = 0.5f;
  ASSERT_TRUE(write(dir.file("c.tif"), bright, light.data(), TsampleType::kFloat));
  ASSERT_TRUE(r.open(dir.file("c.tif"))) << r.error();
  std::vector<uint16_t> clamped(light.size());
  ASSERT_TRUE(r.readImage(clamped.data(), TsampleType::kUint16));
  EXPECT_EQ(clamped[0], 65535);
  EXPECT_EQ(clamped[1], 0);
  EXPECT_EQ(clamped[2], 32768);
}

}  // namespace

namespace {

// A conversion reads the next band while it writes the last: the file's
// bytes are those of one thread reading and writing in turn.
TEST(ImageIO, ConversionBytesAreTheSameAtAnyThreadCount) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kUint16);
  spec.width = 700;
  spec.height = 1700;  // several bands
  std::vector<uint16_t> px(size_t(spec.width) * size_t(spec.height) * 4);
  for (size_t i = 0; i < px.size(); ++i) px[i] = uint16_t((i * 2654435761u) >> 7);
  ASSERT_TRUE(write(dir.file("in.tif"), spec, px.data(), TsampleType::kUint16));
  for (const char* out : {"o.png", "o.iff", "o.tif", "o.exr", "o.sgi", "resized.png"}) {
    SCOPED_TRACE(out);
    std::string one = dir.file(std::string("1") + out), two = dir.file(std::string("2") + out), error;
    TconvertOptions options;
    if (std::string(out) == "resized.png") options.width = 333, options.height = 901;  // the source read ahead
    options.threads = 1;
    ASSERT_TRUE(TconvertImage(dir.file("in.tif"), one, options, error)) << error;
    options.threads = 2;
    ASSERT_TRUE(TconvertImage(dir.file("in.tif"), two, options, error)) << error;
    // IFF headers carry the time they were written: all else is the same.
    auto undated = [](std::vector<uint8_t> bytes) {
      static const uint8_t kDate[] = {'D', 'A', 'T', 'E'};
      auto at = std::search(bytes.begin(), bytes.end(), std::begin(kDate), std::end(kDate));
      if (at != bytes.end() && bytes.end() - at >= 32) std::fill(at + 8, at + 32, 0);
      return bytes;
    };
    EXPECT_EQ(undated(readBytes(one)), undated(readBytes(two)));
  }
  // A failure on either side stops both, and leaves nothing.
  std::vector<uint8_t> whole = readBytes(dir.file("in.tif"));
  whole.resize(whole.size() * 3 / 4);
  writeBytes(dir.file("cut.tif"), whole);
  std::string error;
  EXPECT_FALSE(TconvertImage(dir.file("cut.tif"), dir.file("cut.png"), {}, error));
  EXPECT_EQ(error.rfind(dir.file("cut.tif") + ": ", 0), 0u) << error;
  EXPECT_FALSE(std::filesystem::exists(dir.file("cut.png")));
}

}  // namespace

namespace {

// A reader converts the rows of a band on several threads: the pixels are
// those of one thread, in every sample type and association.
TEST(ImageIO, ReadingOnSeveralThreadsGivesTheSamePixels) {
  TempDir dir;
  TimageInfo spec = specOf(3, true, TsampleType::kUint16);
  spec.width = 333;
  spec.height = 600;  // bands of many rows, pieces of uneven length
  std::vector<uint16_t> px(size_t(spec.width) * size_t(spec.height) * 4);
  for (size_t i = 0; i < px.size(); ++i) px[i] = uint16_t((i * 2654435761u) >> 9);
  spec.association = Tassociation::kPremultiplied;
  for (size_t i = 0; i < px.size(); i += 4)
    for (int c = 0; c < 3; ++c) px[i + size_t(c)] = uint16_t(uint32_t(px[i + size_t(c)]) * px[i + 3] / 65535);
  ASSERT_TRUE(write(dir.file("in.iff"), spec, px.data(), TsampleType::kUint16));
  for (TsampleType type : {TsampleType::kUint8, TsampleType::kUint16, TsampleType::kFloat})
    for (Tassociation association : {Tassociation::kStraight, Tassociation::kPremultiplied}) {
      auto read = [&](int threads) {
        TreadOptions options;
        options.threads = threads;
        TimageReader r;
        EXPECT_TRUE(r.open(dir.file("in.iff"), options)) << r.error();
        std::vector<uint8_t> out(spec.rowBytes(type) * size_t(spec.height));
        EXPECT_TRUE(r.readImage(out.data(), type, 0, association)) << r.error();
        return out;
      };
      auto one = read(1);
      EXPECT_EQ(read(2), one) << int(type) << " " << int(association);
      EXPECT_EQ(read(3), one) << int(type) << " " << int(association);
    }
}

}  // namespace
