// The plug-ins of OpenEXR, WebP, Targa, BMP, Radiance and Netpbm through the
// conversions: depth through EXR, the writers' options, the bytes the
// hand-made headers hold, Netpbm's scaling and variants, WebP frames, and
// damaged or oversized files of every format.
#include <gtest/gtest.h>

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/convert/conversions.h"
#include "kelpimage/il/il.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
#include "testutil.h"

using namespace kelptest;

namespace {

struct Picture {
  int w = 0, h = 0;
  std::vector<uint8_t> px;  // blue, green, red, alpha from the bottom row
  std::vector<float> z;
};

Picture pattern(int w, int h, bool depth) {
  Picture p{w, h, std::vector<uint8_t>(size_t(w) * size_t(h) * 4), {}};
  for (size_t i = 0; i < p.px.size(); ++i) p.px[i] = uint8_t((i * 7 + i / 4 * 13) & 255);
  if (depth) {
    p.z.resize(size_t(w) * size_t(h));
    for (size_t i = 0; i < p.z.size(); ++i) p.z[i] = i % 5 == 0 ? 0.0f : -1.0f / (0.5f + float(i % 977) * 0.37f);
  }
  return p;
}

void writeIff(const std::string& name, const Picture& p, uint32_t type, float dpi = 0.0f) {
  ILimage* im = ILopen(name.c_str(), "w");
  ASSERT_NE(im, nullptr);
  ILsetsize(im, p.w, p.h);
  ILsettype(im, int32_t(type));
  if (dpi > 0) im->dpi = dpi;
  ASSERT_EQ(ILsave(im, p.px.data(), p.z.empty() ? nullptr : p.z.data(), 0), 0);
  ASSERT_EQ(ILclose(im), 0);
}

Picture readIff(const std::string& name) {
  Picture p;
  ILimage* im = ILopen(name.c_str(), "r");
  if (!im) {
    ADD_FAILURE() << name << " does not open: " << FLstrerror(flerrno);
    return p;
  }
  ILgetsize(im, &p.w, &p.h);
  p.px.resize(size_t(p.w) * size_t(p.h) * 4);
  if (ILgettype(im) & ILT_DEPTH) p.z.resize(size_t(p.w) * size_t(p.h));
  EXPECT_EQ(ILload(im, p.px.data(), p.z.empty() ? nullptr : p.z.data()), 0);
  ILclose(im);
  return p;
}

// The files of a folder, by name.
std::vector<std::string> filesIn(const TempDir& dir) {
  std::vector<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir.path())) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

// An IFF depth becomes a Z channel of distances -1/z (infinite where there is
// no depth) and comes back within a float's rounding, over several bands of
// lines written from the bottom up.
TEST(ExrPlugin, DepthSurvivesAndIsADistance) {
  TempDir dir;
  loadAllPXFPlugins();
  Picture in = pattern(37, 300, true);
  {
    writeIff(dir.file("in.iff"), in, ILT_COLOR | ILT_ALPHA | ILT_DEPTH);
    ASSERT_EQ(ifftoany(dir.file("in.iff").c_str(), dir.file("out.exr").c_str(), "exr"), 0);

    Imf::InputFile file(dir.file("out.exr").c_str());
    const Imf::Header& header = file.header();
    EXPECT_EQ(header.lineOrder(), Imf::DECREASING_Y);
    EXPECT_EQ(header.pixelAspectRatio(), 1.0f);  // square pixels, whatever the picture's shape
    EXPECT_EQ(header.channels().findChannel("R")->type, Imf::HALF);
    EXPECT_EQ(header.channels().findChannel("A")->type, Imf::HALF);
    ASSERT_NE(header.channels().findChannel("Z"), nullptr);
    EXPECT_EQ(header.channels().findChannel("Z")->type, Imf::FLOAT);
    std::vector<float> zs(size_t(in.w) * size_t(in.h)), reds(zs.size());
    Imf::FrameBuffer fb;
    fb.insert("Z", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(zs.data()), 4, size_t(in.w) * 4));
    fb.insert("R", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(reds.data()), 4, size_t(in.w) * 4));
    file.setFrameBuffer(fb);
    file.readPixels(0, in.h - 1);
    for (int y = 0; y < in.h; ++y)
      for (int x = 0; x < in.w; ++x) {
        size_t iff = size_t(in.h - 1 - y) * size_t(in.w) + size_t(x), exr = size_t(y) * size_t(in.w) + size_t(x);
        float z = in.z[iff];
        if (z == 0.0f)
          ASSERT_TRUE(std::isinf(zs[exr]) && zs[exr] > 0) << x << "," << y;
        else
          ASSERT_FLOAT_EQ(zs[exr], -1.0f / z) << x << "," << y;
        ASSERT_NEAR(reds[exr], in.px[iff * 4 + 2] / 255.0f, 0.0005f);
      }

    ASSERT_EQ(anytoiff(dir.file("out.exr").c_str(), dir.file("back.iff").c_str(), "exr", 0), 0);
    ILimage* again = ILopen(dir.file("back.iff").c_str(), "r");
    ASSERT_NE(again, nullptr);
    ILgetheader(again);
    EXPECT_EQ(again->prnum, again->prden);  // and square they come back
    ILclose(again);
    Picture back = readIff(dir.file("back.iff"));
    ASSERT_EQ(back.z.size(), in.z.size());
    EXPECT_EQ(back.px, in.px);
    for (size_t i = 0; i < in.z.size(); ++i) ASSERT_FLOAT_EQ(back.z[i], in.z[i]) << i;
  }
}

// A host that writes through the framework from the top down gets a file of
// increasing lines, band by band, that reads back the same.
TEST(ExrPlugin, WrittenFromTheTop) {
  TempDir dir;
  loadAllPXFPlugins();
  const int w = 5, h = 300;
  PxfImageData image;
  image.windowRight = w - 1;
  image.windowTop = h - 1;
  image.orientation = PXF_TOP_DOWN;
  image.dataKind = "rgb";
  image.colorChannels = 3;
  PxfFileInfo info;
  PXF_info_init(&info);
  std::string name = dir.file("top.exr");
  info.key = "exr";
  info.name = info.name2 = name.c_str();
  info.image = &image;
  PxfHandle* out = PXF_open(&info, "w");
  ASSERT_NE(out, nullptr) << PXF_last_error();
  PxfChannels* channels = PXF_chan_alloc(&image, w, "exr", nullptr);
  for (int row = h - 1; row >= 0; --row) {
    for (int c = 0; c < 3; ++c)
      for (int x = 0; x < w; ++x) static_cast<uint8_t*>(channels->buffers[c])[x] = uint8_t(row + x * 40 + c);
    ASSERT_EQ(PXF_scan_write(out, row, channels), 0) << PXF_last_error();
  }
  PXF_chan_free(channels);
  ASSERT_EQ(PXF_close(out), 0) << PXF_last_error();
  EXPECT_EQ(Imf::InputFile(name.c_str()).header().lineOrder(), Imf::INCREASING_Y);
  ASSERT_EQ(anytoiff(name.c_str(), dir.file("back.iff").c_str(), nullptr, 0), 0);
  Picture back = readIff(dir.file("back.iff"));
  ASSERT_EQ(back.h, h);
  for (int row = 0; row < h; ++row)
    for (int x = 0; x < w; ++x) {
      const uint8_t* p = &back.px[(size_t(row) * w + size_t(x)) * 4];
      ASSERT_EQ(p[2], uint8_t(row + x * 40)) << row << "," << x;
      ASSERT_EQ(p[0], uint8_t(row + x * 40 + 2)) << row << "," << x;
    }
}

// Options reach the plug-in by capability name; unknown names, formats and
// values are refused, and a refused write leaves no file behind.
TEST(ExrPlugin, OptionsAndRefusals) {
  TempDir dir;
  Reports reports;
  Picture in = pattern(20, 10, false);
  writeIff(dir.file("in.iff"), in, ILT_COLOR | ILT_ALPHA);
  ASSERT_EQ(ifftoanySetOption("exr", "Float Samples", 1.0f), 0);
  ASSERT_EQ(ifftoanySetOption("exr", "compression", 4.0f), 0);  // names match whatever their case
  ASSERT_EQ(ifftoany(dir.file("in.iff").c_str(), dir.file("f.exr").c_str(), "exr"), 0);
  {
    Imf::InputFile file(dir.file("f.exr").c_str());
    EXPECT_EQ(file.header().compression(), Imf::PIZ_COMPRESSION);
    EXPECT_EQ(file.header().channels().findChannel("G")->type, Imf::FLOAT);
  }
  EXPECT_EQ(ifftoanySetOption("exr", "Quality", 90.0f), -1);
  EXPECT_NE(reports.text.find("its options are: DPI Resolution, Compression, Float Samples"), std::string::npos)
      << reports.text;
  EXPECT_EQ(ifftoanySetOption("nope", "Quality", 90.0f), -1);

  // A value outside an option's range is refused when it is set, naming the range.
  reports.text.clear();
  EXPECT_EQ(ifftoanySetOption("exr", "Compression", 7.0f), -1);
  EXPECT_NE(reports.text.find("\"Compression\" takes 0 to 4 (0 none, 1 RLE, 2 ZIPS, 3 ZIP, 4 PIZ), not 7"),
            std::string::npos)
      << reports.text;
  EXPECT_EQ(ifftoanySetOption("exr", "Compression", 2.5f), 0);  // in range, but no compression of the format
  EXPECT_EQ(ifftoany(dir.file("in.iff").c_str(), dir.file("bad.exr").c_str(), "exr"), -1);
  EXPECT_NE(reports.text.find("compression 2.5 is none of"), std::string::npos) << reports.text;
  EXPECT_EQ(filesIn(dir), (std::vector<std::string>{"f.exr", "in.iff"}));
  ifftoanyClearOptions();
  ASSERT_EQ(ifftoany(dir.file("in.iff").c_str(), dir.file("plain.exr").c_str(), "exr"), 0);
  Imf::InputFile file(dir.file("plain.exr").c_str());
  EXPECT_EQ(file.header().compression(), Imf::ZIP_COMPRESSION);
  EXPECT_EQ(file.header().channels().findChannel("G")->type, Imf::HALF);
}

// Every new format, written by us from one picture, then cut short at several
// points: each cut file is a failure with a report, never a picture. Sizes
// beyond the pixel limit are refused before anything is decoded.
TEST(NewFormats, DamagedAndOversizedFilesFailCleanly) {
  TempDir dir;
  Reports reports;
  Picture in = pattern(64, 40, false);
  writeIff(dir.file("in.iff"), in, ILT_COLOR | ILT_ALPHA);
  for (const char* ext : {"exr", "webp", "tga", "bmp", "hdr", "ppm", "pam"}) {
    SCOPED_TRACE(ext);
    std::string whole = dir.file(std::string("whole.") + ext);
    const char* key = std::strcmp(ext, "ppm") == 0 || std::strcmp(ext, "pam") == 0 ? "pnm" : ext;
    ASSERT_EQ(ifftoany(dir.file("in.iff").c_str(), whole.c_str(), key), 0) << reports.text;
    ASSERT_EQ(ifftoanyFinish(whole.c_str()), 0);  // WebP has frames: it stays open until then
    ASSERT_EQ(anytoiff(whole.c_str(), dir.file("ok.iff").c_str(), nullptr, 0), 0) << reports.text;
    std::vector<uint8_t> bytes = readBytes(whole);
    for (size_t cut : {size_t(12), bytes.size() / 2, bytes.size() - 1}) {
      SCOPED_TRACE(cut);
      std::string cutName = dir.file(std::string("cut.") + ext);
      writeBytes(cutName, std::vector<uint8_t>(bytes.begin(), bytes.begin() + long(cut)));
      reports.text.clear();
      EXPECT_EQ(anytoiff(cutName.c_str(), dir.file("cut.iff").c_str(), key, 0), -1);
      EXPECT_FALSE(reports.text.empty());
    }
  }
  // Damaged PAM headers, which libnetpbm would leak on (the sanitizer build
  // sees it).
  for (std::string pam : {std::string("P7"), std::string("P7\nWIDTH 2\n"), std::string("P7 332\n"),
                          std::string("P7\nWIDTH 2\nHEIGHT 1\nDEPTH 99999999\nMAXVAL 255\nENDHDR\n"),
                          std::string("P7\nWIDTH 2\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nSIZE 3\nENDHDR\n"),
                          std::string("P7\nWIDTH 2\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nTUPLTYPE \nENDHDR\n"),
                          std::string("P7\nWIDTH 2\nHEIGHT 1\nDEPTH 1\nMAXVAL 255\nTUPLTYPE RGB\nENDHDR\n")}) {
    writeBytes(dir.file("bad.pam"), std::vector<uint8_t>(pam.begin(), pam.end()));
    reports.text.clear();
    EXPECT_EQ(anytoiff(dir.file("bad.pam").c_str(), dir.file("bad.iff").c_str(), "pnm", 0), -1) << pam;
    EXPECT_NE(reports.text.find("PAM"), std::string::npos) << reports.text;
  }
  // A Radiance header that never ends (stb's reader once looked for its end
  // forever).
  std::string endless = "#?RADIANCE\nGAMMA=0.45\nPRIMARIES=0.64 0.33";
  writeBytes(dir.file("endless.hdr"), std::vector<uint8_t>(endless.begin(), endless.end()));
  EXPECT_EQ(anytoiff(dir.file("endless.hdr").c_str(), dir.file("endless.iff").c_str(), nullptr, 0), -1);
  // A BMP and a Targa header of 40000 x 40000 pixels, under a limit of 2^20.
  uint64_t limit = ILmaxpixels(0);
  ILmaxpixels(uint64_t(1) << 20);
  std::vector<uint8_t> bmp = readBytes(dir.file("whole.bmp"));
  bmp[18] = 0x40, bmp[19] = 0x9c, bmp[22] = 0x40, bmp[23] = 0x9c;  // 40000 each
  writeBytes(dir.file("huge.bmp"), bmp);
  std::vector<uint8_t> tga = readBytes(dir.file("whole.tga"));
  tga[12] = 0x40, tga[13] = 0x9c, tga[14] = 0x40, tga[15] = 0x9c;
  writeBytes(dir.file("huge.tga"), tga);
  for (const char* name : {"huge.bmp", "huge.tga"}) {
    reports.text.clear();
    EXPECT_EQ(anytoiff(dir.file(name).c_str(), dir.file("huge.iff").c_str(), nullptr, 0), -1);
    EXPECT_NE(reports.text.find("40000 x 40000 pixels"), std::string::npos) << reports.text;
  }
  ILmaxpixels(limit);
}

// Netpbm samples scale from any maxval to 8 or 16 bits with rounding, and the
// output's extension picks its variant.
TEST(PnmPlugin, SamplesScaleAndVariantsFollowTheName) {
  TempDir dir;
  loadAllPXFPlugins();
  std::string plain = "P2\n# a comment\n3 1\n1000\n0 500 1000\n";
  writeBytes(dir.file("plain.pgm"), std::vector<uint8_t>(plain.begin(), plain.end()));
  ASSERT_EQ(anytoiff(dir.file("plain.pgm").c_str(), dir.file("plain.iff").c_str(), nullptr, 0), 0);
  Picture p = readIff(dir.file("plain.iff"));
  ASSERT_EQ(p.w, 3);
  EXPECT_EQ(p.px[0 * 4 + 2], 0);
  EXPECT_EQ(p.px[1 * 4 + 2], 128);  // 500 of 1000 is 127.5
  EXPECT_EQ(p.px[2 * 4 + 2], 255);
  EXPECT_EQ(p.px[1 * 4 + 0], 128);  // grey: all three
  std::string deep = "P6 1 1 65535\n";
  std::vector<uint8_t> deepBytes(deep.begin(), deep.end());
  for (uint8_t b : {0x12, 0x34, 0xAB, 0xCD, 0xFF, 0xFF}) deepBytes.push_back(b);
  writeBytes(dir.file("deep.ppm"), deepBytes);
  ASSERT_EQ(anytoiff(dir.file("deep.ppm").c_str(), dir.file("deep.iff").c_str(), nullptr, 0), 0);
  p = readIff(dir.file("deep.iff"));
  EXPECT_EQ((std::vector<uint8_t>(p.px.begin(), p.px.begin() + 3)), (std::vector<uint8_t>{0xFF, 0xAB, 0x12}));

  Picture red{2, 1, {0, 0, 255, 200, 0, 0, 255, 200}, {}};  // two red pixels, alpha 200
  writeIff(dir.file("red.iff"), red, ILT_COLOR | ILT_ALPHA);
  auto written = [&](const char* name) {
    EXPECT_EQ(ifftoany(dir.file("red.iff").c_str(), dir.file(name).c_str(), "pnm"), 0);
    return readBytes(dir.file(name));
  };
  std::vector<uint8_t> ppm = written("red.ppm"), pgm = written("red.pgm"), pbm = written("red.pbm");
  EXPECT_EQ(text(ppm, 0, 11), "P6\n2 1\n255\n");  // alpha left out
  EXPECT_EQ((std::vector<uint8_t>(ppm.begin() + 11, ppm.end())), (std::vector<uint8_t>{255, 0, 0, 255, 0, 0}));
  EXPECT_EQ(text(pgm, 0, 11), "P5\n2 1\n255\n");
  EXPECT_EQ((std::vector<uint8_t>(pgm.begin() + 11, pgm.end())), (std::vector<uint8_t>{76, 76}));  // luma of red
  EXPECT_EQ(text(pbm, 0, 7), "P4\n2 1\n");
  EXPECT_EQ(pbm.back(), 0xC0);  // 76 of 255 is dark: two black bits
  for (const char* name : {"red.pam", "red.pnm"}) {
    std::vector<uint8_t> pam = written(name);
    std::string head = text(pam, 0, pam.size() - 8);
    EXPECT_EQ(head.rfind("P7\n", 0), 0u) << name;
    EXPECT_NE(head.find("TUPLTYPE RGB_ALPHA\n"), std::string::npos) << name;
    EXPECT_EQ((std::vector<uint8_t>(pam.end() - 8, pam.end())), (std::vector<uint8_t>{255, 0, 0, 200, 255, 0, 0, 200}));
  }
}

// BMP headers as written: 24 bits with padded rows from the bottom, 32 bits
// with a version 4 header whose masks place alpha, and the resolution.
TEST(BmpPlugin, HeaderLayout) {
  TempDir dir;
  loadAllPXFPlugins();
  Picture p{3, 2, {}, {}};
  for (int i = 0; i < 6; ++i) p.px.insert(p.px.end(), {uint8_t(i), uint8_t(10 + i), uint8_t(20 + i), uint8_t(30 + i)});
  writeIff(dir.file("rgb.iff"), p, ILT_COLOR, 300.0f);
  ASSERT_EQ(ifftoany(dir.file("rgb.iff").c_str(), dir.file("rgb.bmp").c_str(), "bmp"), 0);
  std::vector<uint8_t> b = readBytes(dir.file("rgb.bmp"));
  auto le32 = [&](size_t at) { return uint32_t(b[at] | b[at + 1] << 8 | b[at + 2] << 16 | uint32_t(b[at + 3]) << 24); };
  ASSERT_EQ(b.size(), 14u + 40u + 2u * 12u);
  EXPECT_EQ(text(b, 0, 2), "BM");
  EXPECT_EQ(le32(2), b.size());
  EXPECT_EQ(le32(10), 54u);
  EXPECT_EQ(le32(14), 40u);
  EXPECT_EQ(le32(18), 3u);
  EXPECT_EQ(le32(22), 2u);
  EXPECT_EQ(b[28], 24);
  EXPECT_EQ(le32(30), 0u);
  EXPECT_EQ(le32(38), 11811u);  // 300 dots an inch
  EXPECT_EQ((std::vector<uint8_t>(b.begin() + 54, b.begin() + 66)),
            (std::vector<uint8_t>{0, 10, 20, 1, 11, 21, 2, 12, 22, 0, 0, 0}));  // the bottom row, padded

  writeIff(dir.file("rgba.iff"), p, ILT_COLOR | ILT_ALPHA);
  ASSERT_EQ(ifftoany(dir.file("rgba.iff").c_str(), dir.file("rgba.bmp").c_str(), "bmp"), 0);
  b = readBytes(dir.file("rgba.bmp"));
  ASSERT_EQ(b.size(), 14u + 108u + 2u * 12u);
  EXPECT_EQ(le32(10), 122u);
  EXPECT_EQ(le32(14), 108u);
  EXPECT_EQ(b[28], 32);
  EXPECT_EQ(le32(30), 3u);
  EXPECT_EQ(le32(54), 0x00FF0000u);
  EXPECT_EQ(le32(66), 0xFF000000u);
  EXPECT_EQ((std::vector<uint8_t>(b.begin() + 122, b.begin() + 126)), (std::vector<uint8_t>{0, 10, 20, 30}));
  ASSERT_EQ(anytoiff(dir.file("rgba.bmp").c_str(), dir.file("back.iff").c_str(), nullptr, 0), 0);
  EXPECT_EQ(readIff(dir.file("back.iff")).px, p.px);
}

// Frames go into one WebP file call by call and come back one by one, in any
// order; a frame of another size is refused.
TEST(WebpPlugin, FramesInAndOut) {
  TempDir dir;
  Reports reports;
  std::vector<Picture> frames;
  for (int f = 0; f < 3; ++f) {
    Picture p = pattern(24, 16, false);
    for (size_t i = 0; i < p.px.size(); ++i) p.px[i] = uint8_t(p.px[i] + f * 50);
    for (size_t i = 3; i < p.px.size(); i += 4) p.px[i] = 255;
    frames.push_back(p);
    writeIff(dir.file(std::string("f") + std::to_string(f) + ".iff"), p, ILT_COLOR);
  }
  std::string out = dir.file("anim.webp");
  for (int f = 0; f < 3; ++f)
    ASSERT_EQ(ifftoany(dir.file(std::string("f") + std::to_string(f) + ".iff").c_str(), out.c_str(), "webp"), 0)
        << reports.text;
  ASSERT_EQ(ifftoanyFinish(out.c_str()), 0);
  for (int f : {2, 0, 1}) {
    ASSERT_EQ(anytoiff(out.c_str(), dir.file("back.iff").c_str(), "webp", f), 0) << reports.text;
    Picture back = readIff(dir.file("back.iff"));
    for (size_t i = 0; i < back.px.size(); i += 4)
      ASSERT_EQ(
          std::vector<uint8_t>(back.px.begin() + long(i), back.px.begin() + long(i) + 3),
          std::vector<uint8_t>(frames[size_t(f)].px.begin() + long(i), frames[size_t(f)].px.begin() + long(i) + 3))
          << "frame " << f << " pixel " << i / 4;
  }
  EXPECT_EQ(anytoiff(out.c_str(), dir.file("back.iff").c_str(), "webp", 3), -1);

  writeIff(dir.file("small.iff"), pattern(8, 8, false), ILT_COLOR);
  ASSERT_EQ(ifftoany(dir.file("f0.iff").c_str(), dir.file("mixed.webp").c_str(), "webp"), 0);
  reports.text.clear();
  EXPECT_EQ(ifftoany(dir.file("small.iff").c_str(), dir.file("mixed.webp").c_str(), "webp"), -1);
  EXPECT_NE(reports.text.find("frames differ in size"), std::string::npos) << reports.text;
  ifftoanyClose();
  EXPECT_FALSE(std::filesystem::exists(dir.file("mixed.webp")));
}

// Threads converting to outputs of their own at once, through plug-ins of
// several libraries: every output whole and right.
TEST(ConversionConcurrency, ThreadsWriteTheirOwnOutputs) {
  TempDir dir;
  loadAllPXFPlugins();
  Picture in = pattern(40, 30, false);
  writeIff(dir.file("in.iff"), in, ILT_COLOR | ILT_ALPHA);
  const char* keys[] = {"png", "pnm", "exr", "tga"};
  const char* extensions[] = {"png", "pam", "exr", "tga"};
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 8; ++i) {
        std::string out = dir.file("out" + std::to_string(t) + "_" + std::to_string(i) + "." + extensions[t]);
        if (ifftoany(dir.file("in.iff").c_str(), out.c_str(), keys[t]) != 0 || ifftoanyFinish(out.c_str()) != 0)
          ++failures;
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
  for (int t = 0; t < 4; ++t) {
    std::string out = dir.file("out" + std::to_string(t) + "_7." + extensions[t]);
    ASSERT_EQ(anytoiff(out.c_str(), dir.file("back.iff").c_str(), nullptr, 0), 0) << out;
    EXPECT_EQ(readIff(dir.file("back.iff")).px, in.px) << out;
  }
}
