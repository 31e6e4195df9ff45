// The plug-in framework: loading and refusing plug-in files, the table of
// keys, and the conversions in both directions as a plug-in sees them.
#include <gtest/gtest.h>

#include <gif_lib.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/timagefile.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
#include "testutil.h"

using namespace kelptest;

namespace {
std::string testPlugin(const char* name) { return std::string(KELP_TEST_PLUGIN_DIR) + "/" + name + ".so"; }

// Writes an IFF picture of w x h with the given pixels (blue, green, red, alpha) and depth.
void writeIff(const std::string& name, int w, int h, uint32_t type, const std::vector<uint8_t>& px,
              const std::vector<float>& z = {}, float dpi = 0.0f) {
  ILimage* im = ILopen(name.c_str(), "w");
  ILsetsize(im, w, h);
  ILsettype(im, int32_t(type));
  if (dpi > 0) im->dpi = dpi;
  ASSERT_EQ(ILsave(im, px.data(), z.empty() ? nullptr : z.data(), 0), 0);
  ASSERT_EQ(ILclose(im), 0);
}

// A capture file: the image record, the settings, then rows of channels.
struct Capture {
  PxfImageData image;
  std::vector<std::pair<int16_t, float>> settings;
  std::vector<int32_t> rowNumbers;
  std::vector<std::vector<uint8_t>> rows;
};

// The capture plug-in, alone in a folder, ahead of the build's plug-ins.
struct CapturePath {
  TempDir dir;
  CapturePath() {
    std::filesystem::copy_file(testPlugin("capture"), dir.file("capture.so"));
    setenv("PXF_PLUG_IN_PATH", (dir.path().string() + ";" + KELP_PLUGIN_OUTPUT_DIR).c_str(), 1);
    loadAllPXFPlugins();
  }
  ~CapturePath() { unsetenv("PXF_PLUG_IN_PATH"); }
};

Capture readCapture(const std::string& name) {
  auto b = readBytes(name);
  Capture c;
  size_t at = 8;
  std::memcpy(&c.image, &b[at], sizeof c.image);
  at += sizeof c.image;
  for (;;) {
    int16_t code;
    std::memcpy(&code, &b[at], 2);
    at += 2;
    if (code == 0) break;
    float v;
    std::memcpy(&v, &b[at], 4);
    at += 4;
    c.settings.emplace_back(code, v);
  }
  auto bytes = [](int32_t bits) { return size_t(PXF_sample_bytes(bits)); };
  const PxfImageData& im = c.image;
  size_t rowBytes = size_t(im.width()) *
                    (size_t(im.colorChannels) * bytes(im.colorBits) + size_t(im.matteChannels) * bytes(im.matteBits) +
                     size_t(im.depthChannels) * bytes(im.depthBits));
  while (at + 4 + rowBytes <= b.size()) {
    int32_t r;
    std::memcpy(&r, &b[at], 4);
    c.rowNumbers.push_back(r);
    c.rows.emplace_back(b.begin() + long(at + 4), b.begin() + long(at + 4 + rowBytes));
    at += 4 + rowBytes;
  }
  return c;
}
}  // namespace

TEST(PluginLoading, RefusedFilesAndTheTable) {
  TempDir dir;
  testing::internal::CaptureStderr();
  EXPECT_EQ(loadImagePlugin(dir.file("missing.so").c_str()), nullptr);
  EXPECT_EQ(loadImagePlugin(dir.path().c_str()), nullptr);
  writeBytes(dir.file("text.so"), {'h', 'i'});
  EXPECT_EQ(loadImagePlugin(dir.file("text.so").c_str()), nullptr);
  EXPECT_EQ(loadImagePlugin(testPlugin("wrong_program").c_str()), nullptr);
  EXPECT_EQ(loadImagePlugin(testPlugin("no_key").c_str()), nullptr);
  void* capture = loadImagePlugin(testPlugin("capture").c_str());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // the library prints nothing
  std::string said = PXF_load_problems();
  EXPECT_NE(capture, nullptr);
  EXPECT_NE(said.find(dir.file("missing.so") + ": not found"), std::string::npos) << said;
  EXPECT_NE(said.find(dir.path().string() + ": is a directory"), std::string::npos) << said;
  EXPECT_NE(said.find(dir.file("text.so") + ": cannot be opened"), std::string::npos) << said;
  EXPECT_NE(said.find(testPlugin("wrong_program") + ": not an image plug-in of this family"), std::string::npos)
      << said;
  EXPECT_NE(said.find(testPlugin("no_key") + ": the plug-in has no key"), std::string::npos) << said;
  // The table holds base names.
  EXPECT_STREQ(keyFromPluginTable("capture.so"), "capture");
  EXPECT_EQ(keyFromPluginTable(testPlugin("capture").c_str()), nullptr);
  EXPECT_EQ(keyFromPluginTable("wrong_program.so"), nullptr);
}

TEST(PluginLoading, TheSearchPathAndInterfaceVersions) {
  TempDir dir;
  // A folder of plug-ins: good, built for another interface, hidden, and a debug file.
  std::filesystem::copy_file(testPlugin("capture"), dir.file("capture.so"));
  std::filesystem::copy_file(testPlugin("old_version"), dir.file("old.so"));
  std::filesystem::copy_file(testPlugin("capture"), dir.file(".hidden.so"));
  writeBytes(dir.file("symbols.pdb"), {1});
  setenv("PXF_PLUG_IN_PATH", (dir.path().string() + ";" + KELP_PLUGIN_OUTPUT_DIR).c_str(), 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(loadAllPXFPlugins(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  std::string said = PXF_load_problems();
  EXPECT_NE(said.find("old.so: the plug-in is built for plug-in interface 1, this library has 2"), std::string::npos)
      << said;
  EXPECT_EQ(said.find(".hidden"), std::string::npos);
  EXPECT_EQ(said.find("pdb"), std::string::npos);
  ASSERT_NE(PXF_find("capture"), nullptr);
  EXPECT_EQ(PXF_find("old"), nullptr);  // refused, never called
  ASSERT_NE(PXF_find("png"), nullptr);
  EXPECT_EQ(formatIsMultiframe("tif"), 1);
  EXPECT_EQ(formatIsMultiframe("png"), 0);
  EXPECT_EQ(formatIsMultiframe("nosuch"), 0);
  EXPECT_EQ(ifftoanyInit("x", "nosuch"), -1);
  EXPECT_EQ(ifftoanyInit("x", "png"), 0);
  EXPECT_EQ(ifftoanyInit("x", ""), -1);
  unsetenv("PXF_PLUG_IN_PATH");
}

// Out of IFF: bits, channels, orientation, depth, clip-free depth values
// and the resolution setting, as the plug-in receives them.
TEST(Conversion, OutOfIffAsAPluginSeesIt) {
  TempDir dir;
  CapturePath plugins;
  const int w = 3, h = 2;
  std::vector<uint8_t> px(w * h * 4);
  for (int i = 0; i < w * h; ++i)
    px[size_t(i) * 4] = 10, px[size_t(i) * 4 + 1] = 20, px[size_t(i) * 4 + 2] = uint8_t(30 + i),
                   px[size_t(i) * 4 + 3] = 40;
  std::vector<float> z = {0.0f, -1.0f, -0.5f, -0.25f, -1.0f / 1000.0f, -2.0f};
  writeIff(dir.file("in.iff"), w, h, ILT_COLOR | ILT_ALPHA | ILT_DEPTH, px, z, 300.0f);
  ASSERT_EQ(ifftoany(dir.file("in.iff").c_str(), dir.file("out.capture").c_str(), "capture"), 0);
  Capture c = readCapture(dir.file("out.capture"));
  EXPECT_EQ(c.image.colorChannels, 3);
  EXPECT_EQ(c.image.matteChannels, 1);
  EXPECT_EQ(c.image.depthChannels, 1);
  EXPECT_EQ(c.image.colorBits, 8);
  EXPECT_EQ(c.image.orientation, PXF_BOTTOM_UP);
  ASSERT_EQ(c.settings.size(), 1u);  // the first "DPI Resolution" descriptor only
  EXPECT_EQ(c.settings[0].first, 1);
  EXPECT_FLOAT_EQ(c.settings[0].second, 300.0f);
  ASSERT_EQ(c.rows.size(), 2u);
  EXPECT_EQ(c.rowNumbers, (std::vector<int32_t>{0, 1}));
  // Row 0: red, green, blue planes, then matte, then depth as 32-bit integers.
  const auto& r0 = c.rows[0];
  EXPECT_EQ(std::vector<uint8_t>(r0.begin(), r0.begin() + 3), (std::vector<uint8_t>{30, 31, 32}));
  EXPECT_EQ(r0[3], 20);
  EXPECT_EQ(r0[6], 10);
  EXPECT_EQ(r0[9], 40);
  uint32_t d[3];
  std::memcpy(d, &r0[12], 12);
  EXPECT_EQ(d[0], 0u);                            // no depth
  EXPECT_EQ(d[1], 0x80000000u);                   // d = 1: 2^31 - 0, out of range
  EXPECT_EQ(d[2], uint32_t(2147483648.0 - 1.0));  // d = 2
  // No "DPI Resolution" setting for 72 dpi.
  writeIff(dir.file("plain.iff"), w, h, ILT_COLOR, px, {}, 72.0f);
  ASSERT_EQ(ifftoany(dir.file("plain.iff").c_str(), dir.file("plain.capture").c_str(), "capture"), 0);
  EXPECT_TRUE(readCapture(dir.file("plain.capture")).settings.empty());
}

// Into IFF: sample widths and kinds on the fast and slow paths, grey, and
// depth back to its reciprocal form.
TEST(Conversion, IntoIffFromEverySampleForm) {
  TempDir dir;
  CapturePath plugins;
  auto make = [&](const std::string& name, PxfImageData im, const std::vector<uint8_t>& row) {
    std::vector<uint8_t> b = {'C', 'A', 'P', 'T', 'U', 'R', 'E', '1'};
    im.dataKind = nullptr;
    putBytes(b, &im, sizeof im);
    b.insert(b.end(), row.begin(), row.end());
    writeBytes(dir.file(name), b);
  };
  auto first = [&](const std::string& name) {
    EXPECT_EQ(anytoiff(dir.file(name).c_str(), dir.file(name + ".iff").c_str(), nullptr, 0), 0) << name;
    ILimage* im = ILopen(dir.file(name + ".iff").c_str(), "r");
    std::vector<uint8_t> px(4);
    std::vector<float> z(1);
    EXPECT_EQ(ILload(im, px.data(), z.data()), 0);
    ILclose(im);
    return std::make_pair(px, z[0]);
  };
  PxfImageData base;
  base.windowRight = 0;
  base.windowTop = 0;
  base.orientation = PXF_BOTTOM_UP;
  // 16 bits: the high byte (fast path).
  PxfImageData w16 = base;
  w16.colorChannels = 3;
  w16.colorBits = 16;
  make("a", w16, {0x34, 0x12, 0x78, 0x56, 0xBC, 0x9A});
  EXPECT_EQ(first("a").first, (std::vector<uint8_t>{0x9A, 0x56, 0x12, 255}));  // no matte: opaque
  // 4 bits: shifted left by 4 (slow path); one channel is grey.
  PxfImageData grey4 = base;
  grey4.colorChannels = 1;
  grey4.colorBits = 4;
  make("b", grey4, {0x9});
  EXPECT_EQ(first("b").first, (std::vector<uint8_t>{0x90, 0x90, 0x90, 255}));
  // 32-bit floats: clamped and scaled by 255; matte of 8 bits.
  PxfImageData f32 = base;
  f32.colorChannels = 3;
  f32.colorBits = 32;
  f32.colorKind = PXF_FLOAT;
  f32.matteChannels = 1;
  f32.matteBits = 8;
  std::vector<uint8_t> row;
  for (float v : {0.5f, 2.0f, -1.0f}) putBytes(row, &v, 4);
  row.push_back(77);
  make("c", f32, row);
  EXPECT_EQ(first("c").first, (std::vector<uint8_t>{0, 255, 127, 77}));
  // Integer depth of 8 bits: 255 gives -1, 0 gives no depth.
  PxfImageData deep = base;
  deep.colorChannels = 1;
  deep.depthChannels = 1;
  deep.depthBits = 8;
  make("d", deep, {9, 255});
  EXPECT_FLOAT_EQ(first("d").second, -1.0f);
  make("e", deep, {9, 0});
  EXPECT_FLOAT_EQ(first("e").second, 0.0f);
}

// The GIF path: the cube, the error diffusion with its byte wrap, and the
// table's sign-widened values, worked out here from the rules and checked
// against what giflib reads back.
TEST(Conversion, GifThroughTheCube) {
  TempDir dir;
  const int w = 5, h = 4;
  std::vector<uint8_t> px(w * h * 4);
  for (int i = 0; i < w * h; ++i)
    for (int c = 0; c < 3; ++c) px[size_t(i) * 4 + size_t(c)] = uint8_t((i * 53 + c * 91) % 256);
  px[0] = px[1] = px[2] = 255;
  writeIff(dir.file("in.iff"), w, h, ILT_COLOR, px);
  ASSERT_EQ(ifftoany(dir.file("in.iff").c_str(), dir.file("out.gif").c_str(), "gif"), 0);
  ASSERT_EQ(ifftoanyFinish(dir.file("out.gif").c_str()), 0);

  // The expected indices, rows from the top (y = h - 1) down.
  auto work = px;
  auto add = [](uint8_t& b, int e) {
    int sum = b + e;
    b = sum > 256 ? 255 : sum < 0 ? 0 : uint8_t(sum);
  };
  std::vector<int> expected;
  for (int y = h - 1; y >= 0; --y)
    for (int x = 0; x < w; ++x) {
      uint8_t* p = &work[(size_t(y) * w + size_t(x)) * 4];
      int q[3], e[3];
      for (int c = 0; c < 3; ++c) q[c] = (p[c] + 25) / 51, e[c] = int8_t(p[c] - q[c] * 51);
      expected.push_back((q[0] * 6 + q[1]) * 6 + q[2]);
      for (int c = 0; c < 3; ++c) {
        int big = int8_t(e[c] * 0.375), small = int8_t(e[c] * 0.25);
        if (x + 1 < w) add(p[4 + c], big);
        if (y > 0) add(work[(size_t(y - 1) * w + size_t(x)) * 4 + size_t(c)], big);
        if (x + 1 < w && y > 0) add(work[(size_t(y - 1) * w + size_t(x) + 1) * 4 + size_t(c)], small);
      }
    }
  int error = 0;
  GifFileType* gif = DGifOpenFileName(dir.file("out.gif").c_str(), &error);
  ASSERT_NE(gif, nullptr);
  ASSERT_EQ(DGifSlurp(gif), GIF_OK);
  ASSERT_EQ(gif->ImageCount, 1);
  std::vector<int> got(gif->SavedImages[0].RasterBits, gif->SavedImages[0].RasterBits + w * h);
  EXPECT_EQ(got, expected);
  EXPECT_EQ(expected[size_t((h - 1 - 0) * w)], 215);  // white, at the bottom left: the last row written
  ColorMapObject* map = gif->SColorMap;
  ASSERT_NE(map, nullptr);
  EXPECT_EQ(map->Colors[215].Red, 255);
  EXPECT_EQ(map->Colors[3].Red, 153);    // entry 3: (3 x 51, 0, 0), stored as 0xFF99 and shown as 153
  EXPECT_EQ(map->Colors[216].Blue, 50);  // 306 kept to 8 bits
  DGifCloseFile(gif, &error);
}

// A host reads and writes PNG, TIFF and JPEG through the front door alone.
TEST(Conversion, HostStyleReadsAndWrites) {
  TempDir dir;
  TpixelMap map(64, 40);
  for (int y = 0; y < 40; ++y)
    for (int x = 0; x < 64; ++x)
      map.pixelPointer(x, y)->fValue = 0xFF000000u | uint32_t(x * 3) << 16 | uint32_t(y * 5) << 8 | 77u;
  for (const char* key : {"png", "tif", "jpg"}) {
    std::string name = dir.file(std::string("pic.") + key);
    TimageFile out;
    ASSERT_EQ(out.create(name.c_str(), 64, 40, TiffImageFile::kRLE, key), 0) << key;
    ASSERT_EQ(out.writePixelMap(map), 0) << key;
    ASSERT_EQ(out.close(), 0) << key;
    TimageFile in;
    ASSERT_EQ(in.identifyAndOpen(name.c_str()), 0) << key;
    EXPECT_EQ(in.getImageType(name.c_str()), key);
    TpixelMap back;
    ASSERT_EQ(in.readPixelMap(back), 0) << key;
    EXPECT_EQ(in.close(), 0);
    ASSERT_EQ(back.width(), 64);
    ASSERT_EQ(back.height(), 40);
    int worst = 0;
    for (int y = 0; y < 40; ++y)
      for (int x = 0; x < 64; ++x)
        for (int c = 0; c < 3; ++c) {
          int a = (map.pixelPointer(x, y)->fValue >> (8 * c)) & 255,
              b = (back.pixelPointer(x, y)->fValue >> (8 * c)) & 255;
          worst = std::max(worst, std::abs(a - b));
        }
    EXPECT_LE(worst, std::string(key) == "jpg" ? 8 : 0) << key;
  }
  // No temporary file stays behind.
  for (const auto& e : std::filesystem::directory_iterator(dir.path()))
    EXPECT_EQ(e.path().filename().string().find("partial"), std::string::npos);
}
