// Layer sets composited from hand-made documents, against values worked
// out from the blending rules.
#include <gtest/gtest.h>

#include "kelpimage/photoshop/tpsdfile.h"
#include "kelpimage/photoshop/tpsdwarning.h"
#include "psdbuilder.h"
#include "testutil.h"

using namespace zkPhotoshop;
using psdtest::Bytes;
using psdtest::Layer;

namespace {

Layer coloured(const std::string& name, int left, int right, uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
  Layer l;
  l.name = name;
  l.top = 0;
  l.bottom = 1;
  l.left = left;
  l.right = right;
  size_t n = size_t(right - left);
  l.channels = {psdtest::rawChannel(-1, std::vector<uint8_t>(n, a)), psdtest::rawChannel(0, std::vector<uint8_t>(n, r)),
                psdtest::rawChannel(1, std::vector<uint8_t>(n, g)), psdtest::rawChannel(2, std::vector<uint8_t>(n, b))};
  return l;
}

Layer section(const std::string& name, uint32_t type, bool hidden = false, uint8_t opacity = 255) {
  Layer l;
  l.name = name;
  l.flags = hidden ? 2 : 0;
  l.opacity = opacity;
  l.blocks = psdtest::block("lsct", Bytes().u32(type));
  return l;
}

struct SetDocument {
  kelptest::TempDir dir;
  TpsdFile doc;
  SetDocument() {
    Layer clipped = coloured("B", 0, 2, 0, 255, 0, 255);
    clipped.clipping = 1;
    Layer hiddenClipped = coloured("C", 0, 4, 9, 9, 9, 255);
    hiddenClipped.clipping = 1;
    hiddenClipped.flags = 2;
    Layer hidden = coloured("G", 0, 4, 1, 2, 3, 255);
    hidden.flags = 2;
    Layer masked = coloured("F", 0, 4, 255, 0, 255, 255);
    masked.mask.u32(0).u32(1).u32(1).u32(2).u8(0).u8(0).u16(0);  // px 1 only, default 0
    masked.channels.push_back(psdtest::rawChannel(-2, {255}));
    Layer noAlpha = coloured("H", 1, 3, 10, 20, 30, 0);
    noAlpha.channels.erase(noAlpha.channels.begin());  // no transparency: opaque over its rectangle
    psdtest::Document d;
    d.width = 4;
    d.height = 1;
    d.layers = {section("</Layer set>", 3),
                coloured("A", 0, 4, 255, 0, 0, 255),
                clipped,
                hiddenClipped,
                coloured("D", 3, 4, 0, 0, 255, 128),
                section("</Layer set>", 3),
                coloured("E", 0, 4, 255, 255, 255, 255),
                section("nested", 1, true),
                section("outer", 1),
                section("</Layer set>", 3),
                section("empty", 1),
                section("</Layer set>", 3),
                hidden,
                section("ghost", 1),
                section("</Layer set>", 3),
                masked,
                section("masked", 2, false, 128),
                section("</Layer set>", 3),
                noAlpha,
                section("plain", 1)};
    kelptest::writeBytes(dir.file("sets.psd"), d.bytes());
    theWarnings().clear();
    doc.open(TfilePath(dir.file("sets.psd").c_str()), false);
  }
  std::vector<uint32_t> pixels(const char* set, PHOTOSHOP_CHANNEL id) {
    TrgbaData* image = nullptr;
    EXPECT_TRUE(doc.getCompositeImageOfLayerSet(set, image)) << doc.lastError().str();
    std::vector<uint32_t> out;
    if (!image) return out;
    for (uint32_t i = 0; i < 4; ++i) out.push_back(image->pixels16()->channel(id)->value(i));
    return out;
  }
};

using V = std::vector<uint32_t>;

}  // namespace

TEST(TpsdSets, ClippingGroupsHiddenMembersAndNestedSets) {
  SetDocument s;
  TstringArray names;
  ASSERT_EQ(s.doc.readLayerSetNames(names), 0);
  ASSERT_EQ(names.length(), 5);
  EXPECT_EQ(names[0], "outer");  // in file order, the bottom set first
  EXPECT_EQ(names[4], "plain");
  // Red under green clipped to it (the hidden clipped layer skipped), then
  // blue at half over the last pixel: rint((255 * 127) / 255) = 127 red,
  // rint(255 * 128 / 255) = 128 blue. The hidden nested set adds nothing.
  EXPECT_EQ(s.pixels("outer", channelRed), (V{0, 0, 255, 127}));
  EXPECT_EQ(s.pixels("outer", channelGreen), (V{255, 255, 0, 0}));
  EXPECT_EQ(s.pixels("outer", channelBlue), (V{0, 0, 0, 128}));
  EXPECT_EQ(s.pixels("outer", channelTransparency), (V{255, 255, 255, 255}));
  TrgbaData* again = nullptr;
  TrgbaData* first = nullptr;
  ASSERT_TRUE(s.doc.getCompositeImageOfLayerSet("outer", first));
  ASSERT_TRUE(s.doc.getCompositeImageOfLayerSet("outer", again));
  EXPECT_EQ(first, again) << "kept by the document";
  EXPECT_EQ(theWarnings().count(), 0);
}

TEST(TpsdSets, MasksOpacityAndLayersWithoutTransparency) {
  SetDocument s;
  // The mask keeps pixel 1; the set's opacity of 128 scales colour and
  // transparency alike: 255 * (128 / 255 as a float) truncated is 128.
  EXPECT_EQ(s.pixels("masked", channelTransparency), (V{0, 128, 0, 0}));
  EXPECT_EQ(s.pixels("masked", channelRed), (V{128, 128, 128, 128}));
  EXPECT_EQ(s.pixels("plain", channelTransparency), (V{0, 255, 255, 0}));
  EXPECT_EQ(s.pixels("plain", channelBlue), (V{255, 30, 30, 255}));
}

TEST(TpsdSets, EmptyAndInvisibleSets) {
  SetDocument s;
  TrgbaData* image = nullptr;
  EXPECT_FALSE(s.doc.getCompositeImageOfLayerSet("empty", image));
  EXPECT_EQ(image, nullptr);
  ASSERT_EQ(theWarnings().count(), 1);
  EXPECT_EQ(theWarnings().messages()[0], "Layer set empty in the file sets.psd is empty");
  // All hidden: warned of, and a transparent canvas.
  EXPECT_EQ(s.pixels("ghost", channelTransparency), (V{0, 0, 0, 0}));
  EXPECT_EQ(theWarnings().count(), 2);
  EXPECT_FALSE(s.doc.getCompositeImageOfLayerSet("no such set", image));
  EXPECT_FALSE(s.doc.isLayerSetVisible("nested"));
  EXPECT_TRUE(s.doc.isLayerSetVisible("outer"));
  EXPECT_FALSE(s.doc.isLayerSetVisible("ghost"));
}
