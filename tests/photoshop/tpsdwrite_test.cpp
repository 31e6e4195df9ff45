// The lengths and resources a save writes, byte by byte.
#include <gtest/gtest.h>

#include "kelpimage/photoshop/tpsdfile.h"
#include "psdbuilder.h"
#include "testutil.h"

using namespace zkPhotoshop;
using kelptest::be32;
using kelptest::readBytes;
using psdtest::Bytes;

namespace {

// Offsets of a file we wrote: header 26, colour mode data, resources.
size_t layerSection(const std::vector<uint8_t>& b) {
  size_t at = 26;
  at += 4 + be32(b, at);
  return at + 4 + be32(b, at);
}

std::unique_ptr<TrgbaData> picture(uint32_t w, uint32_t h, TdataFormat format) {
  auto p = new TpixelData16(format, w, h, false);
  p->addChannel(channelTransparency, w, h, 0);
  for (uint32_t i = 0; i < w * h; ++i) p->setRed(i, i * 7), p->setTrans(i, 255);
  return std::make_unique<TrgbaData>(w, h, p, 4, false);
}

TpsdFile* newDocument(TpsdFile& doc, const std::string& path, uint16_t depth = 8) {
  unsigned short w = 5, h = 3;
  doc.fDepth = depth;
  doc.create(TfilePath(path.c_str()), w, h);
  return &doc;
}

}  // namespace

TEST(TpsdWrite, NewDocumentsAndTheirLengths) {
  kelptest::TempDir dir;
  // No layers: a section of 8 bytes, both lengths in it 0.
  TpsdFile empty;
  newDocument(empty, dir.file("empty.psd"));
  ASSERT_TRUE(empty.savePsdFile(TfilePath()));
  std::vector<uint8_t> b = readBytes(dir.file("empty.psd"));
  size_t s = layerSection(b);
  EXPECT_EQ(be32(b, s), 8u);
  EXPECT_EQ(be32(b, s + 4), 0u);
  EXPECT_EQ(be32(b, s + 8), 0u);
  EXPECT_EQ(b[s + 12], 0);  // the flattened image's compression word: RLE
  EXPECT_EQ(b[s + 13], 1);

  // With layers, each save outside edit mode writes lengths 2 larger.
  TpsdFile doc;
  newDocument(doc, dir.file("two.psd"));
  auto image = picture(5, 3, dataFormat8);
  ASSERT_TRUE(doc.addNormalLayer("one", image.get()));
  ASSERT_TRUE(doc.savePsdFile(TfilePath()));
  std::vector<uint8_t> first = readBytes(dir.file("two.psd"));
  ASSERT_TRUE(doc.savePsdFile(TfilePath()));
  std::vector<uint8_t> second = readBytes(dir.file("two.psd"));
  s = layerSection(first);
  EXPECT_EQ(be32(second, s) - be32(first, s), 2u);
  EXPECT_EQ(be32(second, s + 4) - be32(first, s + 4), 2u);
  // The count goes out positive, the background first; the info length is even.
  EXPECT_EQ(first[s + 8], 0);
  EXPECT_EQ(first[s + 9], 2);
  EXPECT_EQ(be32(first, s + 4) % 2, 0u);
  TpsdFile back;
  back.open(TfilePath(dir.file("two.psd").c_str()), false);
  TstringArray names;
  ASSERT_EQ(back.getAllLayerNames(names), 0);
  ASSERT_EQ(names.length(), 2);
  EXPECT_EQ(names[0], "Background");
  TpixelData16* px = back.layerPixels(*back.getLayerObjFromName("one"));
  ASSERT_NE(px, nullptr);
  EXPECT_EQ(px->getRedPixelPtr()[14], 98);
}

TEST(TpsdWrite, OddAndFourByteInfoPads) {
  kelptest::TempDir dir;
  // An odd 8-bit layer info length goes out one larger, a zero behind it,
  // and the section length with it.
  TpsdFile doc;
  newDocument(doc, dir.file("odd.psd"));
  doc.addNormalLayer("one", picture(5, 3, dataFormat8).get());
  doc.fLayerInfoSize = 1001;
  doc.fLayerMaskSize = 1001 + 8;
  ASSERT_TRUE(doc.savePsdFile(TfilePath()));
  std::vector<uint8_t> b = readBytes(dir.file("odd.psd"));
  size_t s = layerSection(b);
  EXPECT_EQ(be32(b, s + 4), 1004u);  // 1001 + 2 for this save, + 1 pad
  EXPECT_EQ(be32(b, s), 1004u + 8);
  EXPECT_EQ(b[s + 8 + 1003], 0);
  EXPECT_EQ(be32(b, s + 8 + 1004), 0u) << "the global mask length where the info ends";

  // A 16-bit info length that is a multiple of 4 gets 4 pad bytes.
  TpsdFile deep;
  newDocument(deep, dir.file("deep.psd"), 16);
  deep.addNormalLayer("one", picture(5, 3, dataFormat16).get());
  deep.fLayerInfoSize = 998;  // 1000 after this save's 2
  ASSERT_TRUE(deep.savePsdFile(TfilePath()));
  b = readBytes(dir.file("deep.psd"));
  s = layerSection(b);
  EXPECT_EQ(be32(b, s + 4), 0u);
  EXPECT_EQ(be32(b, s + 8), 0u);
  EXPECT_EQ(be32(b, s + 12), 0x3842494Du);  // "8BIM"
  EXPECT_EQ(be32(b, s + 16), 0x4C723136u);  // "Lr16"
  EXPECT_EQ(be32(b, s + 20), 1000u);
  EXPECT_EQ(be32(b, s + 24 + 1000), 0u) << "4 zero bytes of pad";
  EXPECT_EQ(be32(b, s), 4u + 4 + 12 + 1000 + 4);
  TpsdFile back;
  back.open(TfilePath(dir.file("deep.psd").c_str()), false);
  ASSERT_TRUE(back.readAllLayerRecordInformation()) << back.lastError().str();
  ASSERT_NE(back.getLayerObjFromName("one"), nullptr);
  TpixelData16* px = back.layerPixels(*back.getLayerObjFromName("one"));
  ASSERT_NE(px, nullptr) << back.lastError().str();
  EXPECT_EQ(px->channel(0)->value(14), 98u);
  EXPECT_EQ(back.fLayers.back()->fChannels[1].compression, uint32_t(compressionZipPredict));
}

TEST(TpsdWrite, ResourcesAfterAddingAndDeleting) {
  kelptest::TempDir dir;
  psdtest::Document d;
  d.width = 5;
  d.height = 3;
  d.resources.text("8BIM").u16(1044).u16(0).u32(4).u32(3);
  d.resources.text("8BIM").u16(1026).u16(0).u32(4).u32(0x00010002);
  psdtest::Layer a, b;
  a.name = "a";
  b.name = "b";
  a.blocks = psdtest::block("lyid", Bytes().u32(4));
  b.blocks = psdtest::block("lyid", Bytes().u32(9));
  d.layers = {a, b};
  kelptest::writeBytes(dir.file("in.psd"), d.bytes());
  TpsdFile doc;
  doc.open(TfilePath(dir.file("in.psd").c_str()), true);
  ASSERT_TRUE(doc.readAllLayerRecordInformation()) << doc.lastError().str();
  ASSERT_TRUE(doc.addNormalLayer("c", picture(5, 3, dataFormat8).get()));  // id 10; 1026 grows by 2
  ASSERT_TRUE(doc.deleteLayer("a"));                                       // 1026 shrinks by 2, zeroed
  ASSERT_TRUE(doc.savePsdFile(TfilePath(dir.file("out.psd").c_str()))) << doc.lastError().str();
  std::vector<uint8_t> out = readBytes(dir.file("out.psd"));
  // 1044: the next layer id, max + 1; 1026: four zero bytes.
  size_t at = 26 + 4 + 4;
  EXPECT_EQ(be32(out, at + 4 + 2 + 2), 4u);
  EXPECT_EQ(be32(out, at + 12), 11u);
  at += 16;
  EXPECT_EQ(out[at + 5], 0x02);  // id 1026
  EXPECT_EQ(be32(out, at + 8), 4u);
  EXPECT_EQ(be32(out, at + 12), 0u);
  TpsdFile back;
  back.open(TfilePath(dir.file("out.psd").c_str()), false);
  TstringArray names;
  ASSERT_EQ(back.getAllLayerNames(names), 0);
  ASSERT_EQ(names.length(), 2);
  EXPECT_EQ(names[0], "b");
  EXPECT_EQ(names[1], "c");
  EXPECT_EQ(back.fLayerCount, 2);
}
