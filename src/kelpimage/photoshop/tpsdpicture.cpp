// A document's flattened image as a picture of red, green and blue, and
// its transparency: the colour modes other than RGB are converted here.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

namespace {

enum ColourMode : uint16_t {
  kBitmap = 0,
  kGrey = 1,
  kIndexed = 2,
  kRgb = 3,
  kCmyk = 4,
  kMultichannel = 7,
  kDuotone = 8,
  kLab = 9
};

// The channels that carry colour in each mode; the first one after them is
// the transparency of a document that has one.
int colourChannels(uint16_t mode, int channels) {
  switch (mode) {
    case kRgb:
    case kLab: return 3;
    case kCmyk: return 4;
    case kMultichannel: return std::min(channels, 3);
    default: return 1;
  }
}

// Samples of one plane as numbers from 0 to 1.
struct Plane {
  const uint8_t* bytes;
  bool wide;
  double at(size_t i) const {
    if (!wide) return bytes[i] / 255.0;
    uint16_t v;
    std::memcpy(&v, bytes + 2 * i, 2);
    return v / 65535.0;
  }
};

double toSrgb(double linear) {
  linear = std::clamp(linear, 0.0, 1.0);
  return linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1.0 / 2.4) - 0.055;
}

// CIE L*a*b* (white D65) to sRGB, each from 0 to 1.
void labToRgb(double l, double a, double b, double rgb[3]) {
  double fy = (l + 16.0) / 116.0, fx = fy + a / 500.0, fz = fy - b / 200.0;
  auto finv = [](double t) {
    return t > 6.0 / 29.0 ? t * t * t : 3.0 * (6.0 / 29.0) * (6.0 / 29.0) * (t - 4.0 / 29.0);
  };
  double x = 0.95047 * finv(fx), y = finv(fy), z = 1.08883 * finv(fz);
  rgb[0] = toSrgb(3.2404542 * x - 1.5371385 * y - 0.4985314 * z);
  rgb[1] = toSrgb(-0.9692660 * x + 1.8760108 * y + 0.0415560 * z);
  rgb[2] = toSrgb(0.0556434 * x - 0.2040259 * y + 1.0572252 * z);
}

// The flattened image of a document with transparency is stored over
// white: colour = straight colour x alpha + white x (1 - alpha). Where alpha
// is above 0 the straight colour comes back; where it is 0 the stored
// colour stays.
void removeWhiteMatte(TpixelData16& picture, size_t count) {
  const bool wide = picture.format() == dataFormat16;
  const int64_t top = wide ? 65535 : 255;
  uint8_t* alpha = picture.getTransparencyPixelPtr();
  auto load = [&](const uint8_t* p, size_t i) -> int64_t {
    if (!wide) return p[i];
    uint16_t v;
    std::memcpy(&v, p + 2 * i, 2);
    return v;
  };
  for (PHOTOSHOP_CHANNEL c : {channelRed, channelGreen, channelBlue}) {
    uint8_t* colour = picture.getChannelPixPtr(c);
    for (size_t i = 0; i < count; ++i) {
      int64_t a = load(alpha, i);
      if (a == 0 || a == top) continue;
      int64_t v = std::clamp<int64_t>(((load(colour, i) - (top - a)) * top + a / 2) / a, 0, top);
      if (wide) {
        auto s = uint16_t(v);
        std::memcpy(colour + 2 * i, &s, 2);
      } else {
        colour[i] = uint8_t(v);
      }
    }
  }
}

}  // namespace

bool TpsdFile::readPicture(TrgbaData*& out) {
  out = nullptr;
  return guarded(
      [&] {
        // The layer count's sign says whether the document has transparency;
        // a layer section that cannot be read leaves the picture opaque.
        try {
          TpsdStream layers;
          walkLayers(layers);
        } catch (const TpsdDamaged&) {}
        fLastError = Tstring();
        std::unique_ptr<TpixelData16> planes = readAllImagePlanes();
        if (!planes) return false;
        const uint32_t w = fImageWidth, h = fImageHeight;
        const size_t count = size_t(w) * h;
        const bool wide = fDataFormat == dataFormat16;
        const double top = wide ? 65535.0 : 255.0;
        int colours = colourChannels(fColorMode, fChannelCount);
        auto plane = [&](int id) { return Plane{planes->getChannelPixPtr(id), wide}; };

        auto picture = std::make_unique<TpixelData16>(fDataFormat, w, h, false);
        uint8_t* dst[3] = {picture->getRedPixelPtr(), picture->getGreenPixelPtr(), picture->getBluePixelPtr()};
        auto put = [&](int c, size_t i, double v) {
          auto q = uint32_t(std::lround(std::clamp(v, 0.0, 1.0) * top));
          if (wide) {
            auto s = uint16_t(q);
            std::memcpy(dst[c] + 2 * i, &s, 2);
          } else {
            dst[c][i] = uint8_t(q);
          }
        };
        if (fColorMode == kIndexed && !wide && fColorModeData.size() >= 768) {
          const uint8_t* src = planes->getChannelPixPtr(0);
          for (size_t i = 0; i < count; ++i)
            for (int c = 0; c < 3; ++c) dst[c][i] = fColorModeData[size_t(c) * 256 + src[i]];
        } else if (fColorMode == kCmyk && fChannelCount >= 4) {
          // The file keeps CMYK inverted: 1 is no ink.
          Plane cp = plane(0), mp = plane(1), yp = plane(2), kp = plane(3);
          for (size_t i = 0; i < count; ++i) {
            double k = kp.at(i);
            put(0, i, cp.at(i) * k), put(1, i, mp.at(i) * k), put(2, i, yp.at(i) * k);
          }
        } else if (fColorMode == kLab && fChannelCount >= 3) {
          Plane lp = plane(0), ap = plane(1), bp = plane(2);
          double rgb[3];
          for (size_t i = 0; i < count; ++i) {
            labToRgb(lp.at(i) * 100.0, ap.at(i) * 255.0 - 128.0, bp.at(i) * 255.0 - 128.0, rgb);
            for (int c = 0; c < 3; ++c) put(c, i, rgb[c]);
          }
        } else {
          // RGB, and the one-channel modes as grey.
          size_t bytes = size_t(count) * bytesOf(fDataFormat);
          for (int c = 0; c < 3; ++c) std::memcpy(dst[c], planes->getChannelPixPtr(colours >= 3 ? c : 0), bytes);
        }
        // The first channel past the colour ones is the transparency when
        // the layer count says so, or when no alpha channel name claims it
        // (writers other than Photoshop give documents no names).
        int extra = fChannelCount - colours;
        bool transparent = extra > 0 && (fMergedTransparency || fAlphaNames.length() < extra);
        if (transparent) {
          picture->addChannel(channelTransparency, w, h, 0);
          std::memcpy(picture->getTransparencyPixelPtr(), planes->getChannelPixPtr(colours),
                      count * bytesOf(fDataFormat));
          removeWhiteMatte(*picture, count);
        }
        out = new TrgbaData(w, h, picture.release(), uint16_t(transparent ? 4 : 3), false);
        return true;
      },
      false);
}

}  // namespace zkPhotoshop
