#include "kelpimage/photoshop/tpsdblender.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>

using namespace zkPhotoshop;

namespace {

uint32_t key(const char* k) {
  return uint32_t(uint8_t(k[0])) << 24 | uint32_t(uint8_t(k[1])) << 16 | uint32_t(uint8_t(k[2])) << 8 | uint8_t(k[3]);
}

struct Pixel {
  uint32_t r, g, b, a;
};

TpixelData16 canvasOf(TdataFormat format, const Pixel& p, uint32_t scale = 1) {
  TpixelData16 c(format, 1, 1, true);
  c.addChannel(channelTransparency, 1, 1, 0);
  c.setRed(0, p.r * scale);
  c.setGreen(0, p.g * scale);
  c.setBlue(0, p.b * scale);
  c.setTrans(0, p.a * scale);
  return c;
}

Pixel blended(const char* k, Pixel source, Pixel canvas, TdataFormat format = dataFormat8, uint32_t scale = 1) {
  TpixelData16 s = canvasOf(format, source, scale);
  TpixelData16 d = canvasOf(format, canvas, scale);
  TpsdBlender().blend(s, d, key(k), 0, 0, 1, 1);
  return {d.channel(0)->value(0), d.channel(1)->value(0), d.channel(2)->value(0), d.channel(-1)->value(0)};
}

void expectPixel(const Pixel& got, const Pixel& want, const char* what) {
  EXPECT_EQ(got.r, want.r) << what;
  EXPECT_EQ(got.g, want.g) << what;
  EXPECT_EQ(got.b, want.b) << what;
  EXPECT_EQ(got.a, want.a) << what;
}

}  // namespace

TEST(TpsdBlender, EightBitResultsWorkedOutByHand) {
  // A transparent source leaves the canvas; a transparent canvas takes the source.
  for (const char* k : {"norm", "mul ", "diff", "idiv", "hue ", "what"}) {
    expectPixel(blended(k, {9, 9, 9, 0}, {1, 2, 3, 200}), {1, 2, 3, 200}, k);
    expectPixel(blended(k, {9, 8, 7, 77}, {1, 2, 3, 0}), {9, 8, 7, 77}, k);
  }
  // Normal: opaque source is the source; half over opaque:
  // t = 127 * 255 / 255, colour rint((200 * 128 + 100 * 127) / 255) = 150.
  expectPixel(blended("norm", {200, 0, 255, 255}, {100, 50, 0, 77}), {200, 0, 255, 255}, "norm opaque");
  expectPixel(blended("norm", {200, 0, 255, 128}, {100, 50, 0, 255}), {150, 25, 128, 255}, "norm half");
  // Multiply: (200 * 100) >> 8 = 78. Screen: 255 - ((55 * 155) >> 8) = 222.
  expectPixel(blended("mul ", {200, 255, 0, 255}, {100, 100, 100, 255}), {78, 99, 0, 255}, "mul");
  expectPixel(blended("scrn", {200, 0, 255, 255}, {100, 100, 100, 255}), {222, 101, 255, 255}, "scrn");
  // Darken and lighten (divide takes lighten's path) of opaque sources.
  expectPixel(blended("dark", {200, 50, 100, 255}, {100, 100, 100, 255}), {100, 50, 100, 255}, "dark");
  expectPixel(blended("lite", {200, 50, 100, 255}, {100, 100, 100, 255}), {200, 100, 100, 255}, "lite");
  expectPixel(blended("div ", {200, 50, 100, 255}, {100, 100, 100, 255}), {200, 100, 100, 255}, "div");
  // Difference: |d - sA * s / 255|, truncated: with sA 128, 128 * 200 / 255 = 100.39.
  expectPixel(blended("diff", {200, 0, 30, 255}, {100, 100, 100, 255}), {100, 100, 70, 255}, "diff");
  expectPixel(blended("diff", {200, 0, 0, 128}, {100, 0, 0, 255}), {0, 0, 0, 255}, "diff half");
  // Hard light: below mid (100 * 200) >> 7 = 156; above, 255 - ((55 * 55) >> 7) = 232.
  expectPixel(blended("hLit", {100, 200, 0, 255}, {200, 200, 0, 255}), {156, 232, 0, 255}, "hLit");
  // Overlay: d 127, s 255 gives (127 * 255) >> 7 = 253; d 128, s 0 gives 2.
  expectPixel(blended("over", {255, 0, 0, 255}, {127, 128, 0, 255}), {253, 2, 0, 255}, "over");
  // Inverse divide: s 0 gives 0; else 255 - ((255 - d) << 8) / s, 0 when negative in 16 bits.
  expectPixel(blended("idiv", {0, 200, 10, 255}, {100, 100, 100, 255}), {0, 57, 0, 255}, "idiv");
  // Smudge: trunc(s + d) - ((s * d) >> 7) = 510 - 508.
  expectPixel(blended("smud", {255, 0, 0, 255}, {255, 0, 0, 255}), {2, 0, 0, 255}, "smud");
  // The HSL modes: red's hue on blue is red; white's lightness on blue is white;
  // transparency the smaller.
  expectPixel(blended("hue ", {255, 0, 0, 100}, {0, 0, 255, 200}), {255, 0, 0, 100}, "hue");
  expectPixel(blended("lum ", {255, 255, 255, 255}, {0, 0, 255, 200}), {255, 255, 255, 200}, "lum");
  expectPixel(blended("sat ", {128, 128, 128, 255}, {0, 0, 255, 255}), {128, 128, 128, 255}, "sat");
  // Colour: red's hue and saturation at the grey's lightness 128 / 255:
  // q = 1, p = 2 * 128 / 255 - 1, so green and blue are trunc(p * 255 + 0.5) = 1.
  expectPixel(blended("colr", {255, 0, 0, 255}, {128, 128, 128, 255}), {255, 1, 1, 255}, "colr");
  // A key of no mode composites as normal.
  expectPixel(blended("pass", {200, 0, 255, 128}, {100, 50, 0, 255}), {150, 25, 128, 255}, "pass");
}

TEST(TpsdBlender, SixteenBitsComeCloseToEightBits) {
  std::mt19937 random(7);
  // Inverse divide only where its 8-bit form does not wrap (s at least
  // 255 - d); below that the 8-bit result is what its 16-bit wrap leaves.
  for (const char* k : {"norm", "mul ", "dark", "diff", "smud", "hLit", "div ", "lite", "scrn", "idiv", "over", "hue ",
                        "sat ", "lum ", "colr"}) {
    int worst = 0;
    for (int i = 0; i < 400; ++i) {
      auto v = [&] { return uint32_t(random() % 256); };
      Pixel s{v(), v(), v(), v()};
      Pixel d{v(), v(), v(), v()};
      if (std::strcmp(k, "idiv") == 0)
        s = {std::max(s.r, 255 - d.r), std::max(s.g, 255 - d.g), std::max(s.b, 255 - d.b), s.a};
      Pixel eight = blended(k, s, d);
      Pixel sixteen = blended(k, s, d, dataFormat16, 257);
      for (auto [a, b] :
           {std::pair{eight.r, sixteen.r}, {eight.g, sixteen.g}, {eight.b, sixteen.b}, {eight.a, sixteen.a}})
        worst = std::max(worst, std::abs(int(a) - int(b + 128) / 257));
    }
    EXPECT_LE(worst, 3) << k;
  }
}

TEST(TpsdBlender, HslRoundTrips) {
  for (uint32_t max : {255u, 65535u})
    for (uint32_t r : {0u, 17u, 128u, 255u})
      for (uint32_t g : {0u, 90u, 255u})
        for (uint32_t b : {3u, 200u}) {
          uint32_t s = max / 255, R, G, B;
          hslToRgb(rgbToHsl(r * s, g * s, b * s, max), max, R, G, B);
          EXPECT_NEAR(double(R), double(r * s), s) << max;
          EXPECT_NEAR(double(G), double(g * s), s);
          EXPECT_NEAR(double(B), double(b * s), s);
        }
}
