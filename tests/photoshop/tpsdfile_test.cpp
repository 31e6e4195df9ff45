#include "kelpimage/photoshop/tpsdfile.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <thread>

#include "kelpimage/photoshop/tpsdwarning.h"
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
    theWarnings().clear();
    doc.open(TfilePath(dir.file("doc.psd").c_str()), false);
  }
  bool taken() const { return !doc.fPath.fullName().isEmpty(); }
};

Layer pixelLayer(const std::string& name, int top, int left, int bottom, int right, uint8_t value) {
  Layer l;
  l.name = name;
  l.top = top;
  l.left = left;
  l.bottom = bottom;
  l.right = right;
  size_t n = size_t((bottom - top) * (right - left));
  l.channels = {
      psdtest::rawChannel(-1, std::vector<uint8_t>(n, 255)), psdtest::rawChannel(0, std::vector<uint8_t>(n, value)),
      psdtest::rawChannel(1, std::vector<uint8_t>(n, value)), psdtest::rawChannel(2, std::vector<uint8_t>(n, value))};
  return l;
}

Layer setLayer(const std::string& name, uint32_t type) {
  Layer l;
  l.name = name;
  l.blocks = psdtest::block("lsct", Bytes().u32(type));
  return l;
}

void layerOpacity(TpsdFile& doc, const char* name, uint8_t opacity) {
  doc.getLayerObjFromName(name)->fOpacity = opacity;
}

TstringArray names(TpsdFile& doc, bool sets) {
  TstringArray out;
  EXPECT_EQ(sets ? doc.readLayerSetNames(out) : doc.getAllLayerNames(out), 0) << doc.lastError().str();
  return out;
}

}  // namespace

TEST(TpsdFile, HeaderRefusals) {
  Document d;
  EXPECT_TRUE(Opened(d.bytes()).taken());
  d.version = 2;
  EXPECT_FALSE(Opened(d.bytes()).taken());
  d.version = 1;
  d.depth = 32;
  Opened deep(d.bytes());
  EXPECT_FALSE(deep.taken());
  TstringArray n;
  EXPECT_EQ(deep.doc.getAllLayerNames(n), -1);
  std::vector<uint8_t> bytes = Document().bytes();
  bytes[0] = 'X';
  EXPECT_FALSE(Opened(bytes).taken());
  // A size no file of these bytes can hold.
  d.depth = 8;
  d.width = d.height = 30000;
  d.image.raw({0, 0});
  Opened big(d.bytes());
  EXPECT_FALSE(big.taken());
  EXPECT_NE(big.doc.lastError().str().find("too small"), std::string::npos);
}

TEST(TpsdFile, ResourcesAlphaNamesAndIds) {
  Document d;
  d.channels = 5;
  Bytes names;
  names.u8(3).text("one").u8(3).text("two").u8(5).text("extra");
  d.resources.text("8BIM").u16(1006).u16(0).section(names);
  d.resources.text("8BIM").u16(1053).u16(0).u32(8).u32(11).u32(12);
  d.resources.text("8BIM").u16(1005).u8(3).text("res").u32(3).text("abc").u8(0);  // odd size: one pad
  d.resources.text("8BIM").u16(1044).u16(0).u32(4).u32(77);
  Opened o(d.bytes());
  TstringArray alpha;
  EXPECT_EQ(o.doc.readAlphaList(alpha), 1);
  ASSERT_EQ(alpha.length(), 2);  // five channels: two alpha channels
  EXPECT_EQ(alpha[1], "two");
  ASSERT_EQ(o.doc.fAlphaIds.length(), 2);
  EXPECT_EQ(o.doc.fAlphaIds[1], 12u);
  ASSERT_EQ(o.doc.fResources.size(), 4u);
  EXPECT_EQ(o.doc.fResources[2].name, "res");
  EXPECT_EQ(o.doc.fResources[2].size, 4u);
  EXPECT_EQ(o.doc.fResources[2].data, (std::vector<uint8_t>{'a', 'b', 'c', 0}));
  EXPECT_EQ(o.doc.fResources[3].value, 77u);
  EXPECT_TRUE(o.doc.fResources[0].data.empty());
}

TEST(TpsdFile, LayerRecordsAndSets) {
  Document d;
  d.width = 6;
  d.height = 4;
  Layer masked = pixelLayer("masked", 1, 1, 3, 4, 50);
  masked.mask.u32(0).u32(0).u32(2).u32(3).u8(255).u8(2).u16(0);  // 20 bytes
  masked.blocks.raw(psdtest::block("lyid", Bytes().u32(42)).b).raw(psdtest::block("lrfx", Bytes().u32(0)).b);
  masked.opacity = 128;
  masked.flags = 2;
  masked.clipping = 1;
  masked.blend = "mul ";
  Layer real = pixelLayer("real", 0, 0, 1, 1, 9);
  real.mask.u32(0).u32(0).u32(1).u32(1).u8(0).u8(0).u8(1).u8(255).u32(0).u32(0).u32(1).u32(1);  // 36 bytes
  d.layers = {setLayer("</Layer set>", 3), masked, real, setLayer("outer", 1), pixelLayer("top", 0, 0, 4, 6, 1)};
  d.layerCount = -5;  // a negative count stands for its absolute value
  Opened o(d.bytes());
  ASSERT_TRUE(o.taken());
  EXPECT_TRUE(o.doc.readAllLayerRecordInformation()) << o.doc.lastError().str();
  ASSERT_EQ(o.doc.fLayers.size(), 5u);
  EXPECT_EQ(o.doc.fLayerCount, 5);
  const TpsdLayer& m = *o.doc.fLayers[1];
  EXPECT_EQ(m.fLayerId, 42u);
  EXPECT_EQ(m.fOpacity, 128);
  EXPECT_TRUE(m.isHidden());
  EXPECT_EQ(keyText(m.fBlendKey), "mul ");
  EXPECT_EQ(m.fMaskRect.bottom, 2);
  EXPECT_EQ(m.fMaskDefault, 255);
  EXPECT_EQ(m.fMaskFlags, 2);
  EXPECT_EQ(o.doc.fLayers[2]->fRealRect.right, 1);
  EXPECT_EQ(o.doc.fLayers[2]->fRealDefault, 255);
  EXPECT_EQ(o.doc.fSetEndName, "</Layer set>");
  TstringArray layers = names(o.doc, false);
  ASSERT_EQ(layers.length(), 3);
  EXPECT_EQ(layers[0], "masked");
  TstringArray sets = names(o.doc, true);
  ASSERT_EQ(sets.length(), 1);
  EXPECT_EQ(sets[0], "outer");
  // Layer effects are warned of, with the layer's name.
  TstringArray w = theWarnings().messages();
  ASSERT_GE(w.length(), 1);
  EXPECT_EQ(w[0], "Kelp does not support Layer Effects which is present in the layer masked in  the file doc.psd");
}

TEST(TpsdFile, SixteenBitLayersInsideTheirBlock) {
  Document d;
  d.depth = 16;
  Layer l = pixelLayer("deep", 0, 0, 1, 2, 0);
  for (auto& c : l.channels) c.data = {0, 0, 0x12, 0x34, 0xAB, 0xCD};
  d.layers = {l};
  d.sixteenBitLayout = true;
  Opened o(d.bytes());
  ASSERT_TRUE(o.taken());
  TpsdLayer* layer = nullptr;
  ASSERT_TRUE(o.doc.readAllLayerRecordInformation());
  ASSERT_EQ(o.doc.getLayerFromName("deep", layer), 0);
  TpixelData16* px = o.doc.layerPixels(*layer);
  ASSERT_NE(px, nullptr) << o.doc.lastError().str();
  EXPECT_EQ(px->channel(channelGreen)->value(1), 0xABCDu);
  TrgbaData* flat = nullptr;
  ASSERT_TRUE(o.doc.getCompositeImage(flat));
  EXPECT_EQ(flat->pixels16()->getRedPixelPtr()[0], 7);
  EXPECT_EQ(flat->pixels16()->channel(0)->value(0), 0x0707u);
}

TEST(TpsdFile, LayerImageAndMasksWithoutRectangle) {
  Document d;
  d.width = 4;
  d.height = 3;
  Layer l = pixelLayer("box", 1, 2, 3, 5, 40);  // runs past the right edge
  l.channels.push_back({-2, {0, 0}});
  l.mask.u32(0).u32(0).u32(0).u32(0).u8(255).u8(0).u16(0);  // a mask of no rectangle
  l.opacity = 0;
  d.layers = {l};
  Opened o(d.bytes());
  TrgbaData* image = nullptr;
  ASSERT_TRUE(o.doc.getLayerImage("box", image)) << o.doc.lastError().str();
  std::unique_ptr<TrgbaData> owned(image);
  EXPECT_EQ(image->width(), 4u);
  EXPECT_EQ(image->numChannels(), 5);
  // Opacity scales the whole canvas: white outside the layer goes too.
  Tchannel* red = image->pixels16()->channel(0);
  EXPECT_EQ(red->value(0), 0u);
  EXPECT_EQ(image->pixels16()->channel(channelTransparency)->value(1 * 4 + 2), 0u);
  image->pixels16()->applyOpacity(255);
  TrgbaData* again = nullptr;
  layerOpacity(o.doc, "box", 255);
  ASSERT_TRUE(o.doc.getLayerImage("box", again));
  std::unique_ptr<TrgbaData> ownedAgain(again);
  red = again->pixels16()->channel(0);
  EXPECT_EQ(red->value(0), 255u);
  EXPECT_EQ(red->value(1 * 4 + 2), 40u);
  EXPECT_EQ(again->pixels16()->channel(channelTransparency)->value(0), 0u);
  EXPECT_EQ(again->pixels16()->channel(channelTransparency)->value(1 * 4 + 3), 255u);
  TpsdLayer* layer = o.doc.getLayerObjFromName("box");
  EXPECT_EQ(layer->fPixels->channel(-2)->value(5), 255u) << "the mask is its default colour";
  EXPECT_FALSE(o.doc.getLayerImage("absent", image));
}

TEST(TpsdFile, AlphaChannelsInEitherOrder) {
  for (uint16_t compression : {0, 1}) {
    Document d;
    d.channels = 5;
    d.width = 2;
    d.height = 1;
    d.compression = compression;
    if (compression == 1) {
      for (int c = 0; c < 5; ++c) d.image.u16(2);
      for (int c = 0; c < 5; ++c) d.image.u8(0xFF).u8(10 * c);
    } else {
      for (int c = 0; c < 5; ++c) d.image.u8(10 * c).u8(10 * c);
    }
    Opened o(d.bytes());
    TrgbaData* a = nullptr;
    ASSERT_TRUE(o.doc.getAlphaChannelMap(a, 1)) << o.doc.lastError().str();
    EXPECT_EQ(a->pixels16()->getChannelPixPtr(4)[1], 40);
    delete a;
    ASSERT_TRUE(o.doc.getAlphaChannelMap(a, 0));
    EXPECT_EQ(a->pixels16()->getChannelPixPtr(3)[0], 30);
    delete a;
    EXPECT_FALSE(o.doc.getAlphaChannelMap(a, 2));
    TrgbaData* flat = nullptr;
    ASSERT_TRUE(o.doc.getCompositeImage(flat));
    EXPECT_EQ(flat->numChannels(), 3);
    EXPECT_EQ(flat->pixels16()->getBluePixelPtr()[1], 20);
  }
}

TEST(TpsdFile, DamagedDocumentsFailCleanly) {
  Document d;
  d.width = 6;
  d.height = 4;
  Layer l = pixelLayer("a", 0, 0, 4, 6, 3);
  l.blocks = psdtest::block("lyid", Bytes().u32(1));
  d.layers = {l, pixelLayer("b", 1, 1, 2, 2, 4)};
  std::vector<uint8_t> whole = d.bytes();
  // Every cut of the file: the reads fail or succeed, never more.
  for (size_t cut = 0; cut < whole.size(); cut += 3) {
    Opened o(std::vector<uint8_t>(whole.begin(), whole.begin() + long(cut)));
    TstringArray n;
    o.doc.getAllLayerNames(n);
    o.doc.readAllChannelInformation();
    TrgbaData* image = nullptr;
    if (o.doc.getLayerImage("b", image)) delete image;
    o.doc.getCompositeImage(image);
  }
  // Hostile fields: a huge rectangle, a channel length past the end, 57
  // channels.
  auto patched = [&](size_t at, const std::vector<uint8_t>& bytes) {
    std::vector<uint8_t> b = whole;
    for (size_t i = 0; i < bytes.size(); ++i) b.at(at + i) = bytes[i];
    return b;
  };
  size_t record = 26 + 4 + 4 + 4 + 4 + 2;  // header, colour data, resources, section, info lengths, count
  {
    Opened o(patched(record + 8, {0x10, 0, 0, 0, 0x10, 0, 0, 0}));  // bottom and right of 2^28
    EXPECT_FALSE(o.doc.readAllChannelInformation());
    EXPECT_FALSE(o.doc.lastError().isEmpty());
  }
  {
    Opened o(patched(record + 18 + 2, {0x7F, 0xFF, 0xFF, 0xFF}));
    EXPECT_FALSE(o.doc.readAllChannelInformation());
  }
  {
    Opened o(patched(record + 16, {0, 57}));
    EXPECT_FALSE(o.doc.readAllLayerRecordInformation());
    EXPECT_EQ(o.doc.lastReason(), "Invalid information read from file");
  }
}

TEST(TpsdFileWarning, TextsAndTheSetEndLayer) {
  TpsdFileWarning w;
  w.addWarning(warnClipping, "f.psd", "L");
  w.addWarning(warnCmykMode, "f.psd", "");
  w.addWarning(warnEmptyLayerSet, "f.psd", "Set %s");
  w.addWarning(warnNoMemory, "f.psd", "");
  w.addWarning(12345, "f.psd", "x");
  TstringArray m = w.messages();
  ASSERT_EQ(m.length(), 5);
  EXPECT_EQ(m[0], "Clipping is not supported for the layer L in the file  f.psd");
  EXPECT_EQ(m[1], "Kelp does not support CMYK color mode which is present in the file f.psd");
  EXPECT_EQ(m[2], "Layer set Set %s in the file f.psd is empty");
  EXPECT_EQ(m[3], "Unable to allocate memory for the PSD file f.psd");
  EXPECT_EQ(m[4], "");
  EXPECT_EQ(w.codes()[0], 512u);
  w.clear();
  EXPECT_EQ(w.count(), 0);

  // A colour mode is warned of only once the layers named a set end, and
  // the set end's own warnings are dropped.
  Document d;
  d.mode = 4;
  d.layers = {setLayer("end", 3), setLayer("head", 1)};
  d.layers[0].blocks.raw(psdtest::block("lrfx", Bytes().u32(0)).b);
  Opened o(d.bytes());
  EXPECT_EQ(theWarnings().count(), 0);
  ASSERT_TRUE(o.doc.readAllLayerRecordInformation());
  EXPECT_EQ(theWarnings().count(), 0);
  TstringArray n;
  o.doc.getAllLayerNames(n);
  EXPECT_EQ(theWarnings().count(), 1);
  EXPECT_EQ(theWarnings().codes()[0], uint32_t(warnCmykMode));
  EXPECT_EQ(o.doc.warnings().codes(), theWarnings().codes());
}

TEST(TpsdFileConcurrency, EachDocumentKeepsItsOwnWarnings) {
  // Two documents read on two threads: the CMYK one has its warning, the
  // RGB one none, whatever the other thread raised meanwhile.
  Document cmyk, rgb;
  cmyk.mode = 4;
  cmyk.layers = {setLayer("end", 3), setLayer("head", 1)};
  rgb.layers = {setLayer("end", 3), setLayer("head", 1)};
  Opened a(cmyk.bytes()), b(rgb.bytes());
  std::thread first([&] {
    TstringArray names;
    for (int i = 0; i < 20; ++i) a.doc.getAllLayerNames(names);
  });
  std::thread second([&] {
    TstringArray names;
    for (int i = 0; i < 20; ++i) b.doc.getAllLayerNames(names);
  });
  first.join();
  second.join();
  ASSERT_GE(a.doc.warnings().count(), 1);
  EXPECT_EQ(a.doc.warnings().codes()[0], uint32_t(warnCmykMode));
  EXPECT_EQ(b.doc.warnings().count(), 0);
  const int before = a.doc.warnings().count();
  a.doc.open(TfilePath(a.dir.file("doc.psd").c_str()), false);
  // Opened again, it holds what this open raised, not what the last one did.
  EXPECT_LE(a.doc.warnings().count(), before);
  EXPECT_EQ(b.doc.warnings().count(), 0);
}

TEST(TpsdFile, OutOfMemoryIsAWarningAndAFailedRead) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers need more address space than the limit leaves";
#else
  // 8192 x 4096 in runs of 128: half a megabyte a channel, 32 MB expanded.
  const uint32_t w = 8192, h = 4096;
  Bytes row;
  for (uint32_t x = 0; x < w; x += 128) row.u8(0x81).u8(x / 128);
  Document d;
  d.width = w;
  d.height = h;
  d.compression = 1;
  for (int c = 0; c < 3; ++c)
    for (uint32_t y = 0; y < h; ++y) d.image.u16(uint32_t(row.size()));
  for (int c = 0; c < 3; ++c)
    for (uint32_t y = 0; y < h; ++y) d.image.raw(row.b);
  Layer l;
  l.name = "big";
  l.bottom = int32_t(h);
  l.right = int32_t(w);
  Bytes channel;
  channel.u16(1);
  for (uint32_t y = 0; y < h; ++y) channel.u16(uint32_t(row.size()));
  for (uint32_t y = 0; y < h; ++y) channel.raw(row.b);
  l.channels = {{0, channel.b}};
  d.layers = {l};
  kelptest::TempDir dir;
  std::string name = dir.file("big.psd");
  kelptest::writeBytes(name, d.bytes());
  auto readUnderALimit = [&] {
    rlimit limit{96u << 20, 96u << 20};
    setrlimit(RLIMIT_AS, &limit);
    theWarnings().clear();
    TpsdFile doc;
    doc.open(TfilePath(name.c_str()), false);
    bool read = doc.readAllLayerRecordInformation();
    TrgbaData* image = nullptr;
    bool layer = doc.getLayerImage("big", image);
    bool warned = theWarnings().count() == 1 && theWarnings().codes()[0] == warnNoMemory &&
                  theWarnings().messages()[0] == "Unable to allocate memory for the PSD file big.psd";
    std::exit(read && !layer && warned && doc.lastReason() == "out of memory" ? 0 : 1);
  };
  EXPECT_EXIT(readUnderALimit(), testing::ExitedWithCode(0), "");
#endif
}

TEST(TpsdFile, LayersGivenBackAndReadAgain) {
  Document d;
  d.width = 6;
  d.height = 4;
  d.layers = {pixelLayer("a", 0, 0, 4, 6, 11), pixelLayer("b", 0, 0, 4, 6, 22), pixelLayer("c", 0, 0, 2, 3, 33)};
  Opened o(d.bytes());
  ASSERT_TRUE(o.doc.readAllChannelInformation());
  TpsdLayer* a = o.doc.getLayerObjFromName("a");
  TpsdLayer* b = o.doc.getLayerObjFromName("b");
  TpsdLayer* c = o.doc.getLayerObjFromName("c");
  ASSERT_TRUE(o.doc.expandLayerChannels());
  EXPECT_EQ(a->fPixels->getGreenPixelPtr()[23], 11);
  o.doc.releaseLayerPixels(*a);
  EXPECT_FALSE(a->fPixels->channel(channelGreen)->hasRaw());
  o.doc.releaseLayerPixels(*b);
  o.doc.releaseLayerPixels(*c);
  // Each layer comes back whole from its own bytes, in buffers given back
  // by others.
  for (TpsdLayer* l : {c, b, a}) ASSERT_NE(o.doc.layerPixels(*l), nullptr);
  EXPECT_EQ(a->fPixels->getGreenPixelPtr()[23], 11);
  EXPECT_EQ(b->fPixels->getBluePixelPtr()[0], 22);
  EXPECT_EQ(c->fPixels->getRedPixelPtr()[5], 33);
  EXPECT_EQ(c->fPixels->getTransparencyPixelPtr()[5], 255);
}
