// A document as a picture: every colour mode turned into RGB, the merged
// transparency of documents without a background, the composite of a
// document's own layers, fill layers with inside-out rectangles, and layers
// found by either of their names.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "kelpimage/photoshop/tpsdfile.h"
#include "psdbuilder.h"
#include "testutil.h"

using namespace zkPhotoshop;
using psdtest::Bytes;
using psdtest::Document;
using psdtest::Layer;

namespace {

struct Opened {
  kelptest::TempDir dir;
  TpsdFile doc;
  explicit Opened(const std::vector<uint8_t>& bytes) {
    kelptest::writeBytes(dir.file("doc.psd"), bytes);
    doc.open(TfilePath(dir.file("doc.psd").c_str()), false);
  }
};

// Raw planes, one after the other, for a document of `n` pixels.
Bytes planes(const std::vector<std::vector<uint8_t>>& each) {
  Bytes b;
  for (const auto& p : each) b.raw(p);
  return b;
}

struct Picture {
  std::unique_ptr<TrgbaData> data;
  uint8_t at(PHOTOSHOP_CHANNEL c, size_t i) const { return data->pixels16()->getChannelPixPtr(c)[i]; }
};

void expectRgb(const Picture& p, size_t i, int r, int g, int b) {
  EXPECT_EQ(p.at(0, i), r) << "pixel " << i;
  EXPECT_EQ(p.at(1, i), g) << "pixel " << i;
  EXPECT_EQ(p.at(2, i), b) << "pixel " << i;
}

Picture picture(TpsdFile& doc) {
  TrgbaData* out = nullptr;
  EXPECT_TRUE(doc.readPicture(out)) << doc.lastError().str();
  return Picture{std::unique_ptr<TrgbaData>(out)};
}

Layer layerWith(const std::string& name, int32_t top, int32_t left, int32_t bottom, int32_t right, uint8_t value) {
  Layer l;
  l.name = name;
  l.top = top, l.left = left, l.bottom = bottom, l.right = right;
  size_t n = size_t(std::max(0, bottom - top) * std::max(0, right - left));
  for (int id : {-1, 0, 1, 2})
    l.channels.push_back(psdtest::rawChannel(id, std::vector<uint8_t>(n, id < 0 ? 255 : value)));
  return l;
}

}  // namespace

TEST(TpsdPicture, ColourModesBecomeRgb) {
  Document grey;
  grey.mode = 1, grey.channels = 1, grey.width = 2, grey.height = 1;
  grey.image = planes({{10, 200}});
  Opened g(grey.bytes());
  Picture p = picture(g.doc);
  EXPECT_EQ(p.data->numChannels(), 3);
  expectRgb(p, 0, 10, 10, 10);
  expectRgb(p, 1, 200, 200, 200);

  Document cmyk;  // the file keeps CMYK inverted: 255 is no ink
  cmyk.mode = 4, cmyk.channels = 4, cmyk.width = 2, cmyk.height = 1;
  cmyk.image = planes({{255, 0}, {255, 255}, {0, 255}, {255, 128}});
  Opened c(cmyk.bytes());
  p = picture(c.doc);
  expectRgb(p, 0, 255, 255, 0);  // full yellow
  expectRgb(p, 1, 0, 128, 128);  // cyan, half black

  Document lab;
  lab.mode = 9, lab.channels = 3, lab.width = 3, lab.height = 1;
  lab.image = planes({{255, 0, 136}, {128, 128, 208}, {128, 128, 195}});  // white, black, red
  Opened l(lab.bytes());
  p = picture(l.doc);
  for (PHOTOSHOP_CHANNEL ch : {0, 1, 2}) {
    EXPECT_NEAR(p.at(ch, 0), 255, 1);
    EXPECT_NEAR(p.at(ch, 1), 0, 1);
  }
  EXPECT_GT(p.at(0, 2), 200);
  EXPECT_LT(p.at(1, 2), 60);

  Document indexed;
  indexed.mode = 2, indexed.channels = 1, indexed.width = 2, indexed.height = 1;
  std::vector<uint8_t> palette(768, 0);
  palette[3] = 90, palette[256 + 3] = 80, palette[512 + 3] = 70;
  indexed.colourModeData.raw(palette);
  indexed.image = planes({{3, 0}});
  Opened ix(indexed.bytes());
  p = picture(ix.doc);
  expectRgb(p, 0, 90, 80, 70);
  expectRgb(p, 1, 0, 0, 0);
}

TEST(TpsdPicture, ANegativeLayerCountGivesTheMergedTransparency) {
  for (uint16_t mode : {uint16_t(3), uint16_t(1)}) {
    Document d;
    d.mode = mode;
    uint16_t colours = mode == 3 ? 3 : 1;
    d.channels = uint16_t(colours + 1), d.width = 2, d.height = 1;
    d.layers = {layerWith("only", 0, 0, 1, 2, 50)};
    d.layerCount = -1;
    std::vector<std::vector<uint8_t>> each(colours, {255, 200});
    each.push_back({0, 128});  // the transparency
    d.image = planes(each);
    Opened o(d.bytes());
    Picture p = picture(o.doc);
    EXPECT_TRUE(o.doc.fMergedTransparency);
    ASSERT_EQ(p.data->numChannels(), 4);
    EXPECT_EQ(p.at(channelTransparency, 0), 0);
    EXPECT_EQ(p.at(channelTransparency, 1), 128);
    // Straight colour, the white taken out: (200 - 127) x 255 / 128.
    EXPECT_EQ(p.at(0, 1), 145);
    EXPECT_EQ(p.at(2, 1), 145);
    EXPECT_EQ(p.at(1, 0), 255);  // where alpha is 0 the stored colour stays
    // The flattened image of the document's own reader keeps three channels.
    TrgbaData* flat = nullptr;
    ASSERT_TRUE(o.doc.getCompositeImage(flat)) << o.doc.lastError().str();
    EXPECT_EQ(flat->numChannels(), std::min<int>(d.channels, 3));
  }
  Document opaque;
  opaque.layers = {layerWith("only", 0, 0, 2, 4, 50)};
  Opened o(opaque.bytes());
  EXPECT_EQ(picture(o.doc).data->numChannels(), 3);
}

TEST(TpsdPicture, FillLayersWithInsideOutRectanglesAreEmpty) {
  Document d;
  d.width = 4, d.height = 2;
  Layer fill;
  fill.name = "Color Fill 1";
  fill.top = 0, fill.left = 0, fill.bottom = -1, fill.right = 0;  // as Photoshop writes fill layers
  for (int id : {-1, 0, 1, 2}) fill.channels.push_back(psdtest::rawChannel(id, {}));
  d.layers = {layerWith("under", 0, 0, 2, 4, 9), fill, layerWith("over", 0, 0, 1, 2, 77)};
  Opened o(d.bytes());
  ASSERT_TRUE(o.doc.readAllChannelInformation()) << o.doc.lastError().str();
  TpsdLayer* layer = o.doc.getLayerObjFromName("Color Fill 1");
  ASSERT_NE(layer, nullptr);
  EXPECT_TRUE(layer->isEmpty());
  EXPECT_EQ(layer->height(), 0);
  TrgbaData* made = nullptr;
  ASSERT_TRUE(o.doc.readDocumentImage(made)) << o.doc.lastError().str();
  std::unique_ptr<TrgbaData> image(made);
  EXPECT_EQ(image->pixels16()->getRedPixelPtr()[0], 77);
  EXPECT_EQ(image->pixels16()->getRedPixelPtr()[7], 9);
  // Written back, the rectangle is as it was read.
  o.doc.open(TfilePath(o.dir.file("doc.psd").c_str()), true);
  ASSERT_TRUE(o.doc.readAllLayerRecordInformation());
  ASSERT_TRUE(o.doc.savePsdFile(TfilePath(o.dir.file("again.psd").c_str()))) << o.doc.lastError().str();
  TpsdFile again;
  again.open(TfilePath(o.dir.file("again.psd").c_str()), false);
  ASSERT_TRUE(again.readAllLayerRecordInformation()) << again.lastError().str();
  EXPECT_EQ(again.getLayerObjFromName("Color Fill 1")->fRect.bottom, -1);
}

TEST(TpsdPicture, LayersAreFoundByTheirFullOrTheirRecordName) {
  Document d;
  Layer named = layerWith("Ebene ?", 0, 0, 2, 4, 30);  // the record's name, as Photoshop cuts it
  std::u16string full = u"Ebene \u00fc";
  Bytes luni;
  luni.u32(uint32_t(full.size()));
  for (char16_t ch : full) luni.u16(ch);
  named.blocks = psdtest::block("luni", luni);
  d.layers = {named};
  Opened o(d.bytes());
  ASSERT_TRUE(o.doc.readAllLayerRecordInformation()) << o.doc.lastError().str();
  TpsdLayer* byFull = o.doc.getLayerObjFromName(Tstring("Ebene \xc3\xbc"));
  ASSERT_NE(byFull, nullptr);
  EXPECT_EQ(o.doc.getLayerObjFromName("Ebene ?"), byFull);
  EXPECT_EQ(o.doc.getLayerObjFromName("Ebene"), nullptr);
}

TEST(TpsdPicture, ANewDocumentWithNoLayersReadsBack) {
  kelptest::TempDir dir;
  std::string path = dir.file("new.psd");
  {
    TpsdFile doc;
    unsigned short w = 6, h = 3;
    doc.create(TfilePath(path.c_str()), w, h);
    ASSERT_TRUE(doc.savePsdFile(TfilePath(path.c_str()))) << doc.lastError().str();
  }
  TpsdFile doc;
  doc.open(TfilePath(path.c_str()), false);
  EXPECT_TRUE(doc.readAllChannelInformation()) << doc.lastError().str();
  EXPECT_TRUE(doc.fLayers.empty());
  Picture p = picture(doc);
  EXPECT_EQ(p.data->width(), 6u);
}
