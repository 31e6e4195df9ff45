// kimg pattern: a synthetic picture with gradients, shapes, a soft alpha
// edge and a depth ramp, so that demos and benchmarks need no outside data.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "commands.h"
#include "files.h"
#include "kelpimage/il/il.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "util.h"

namespace kimg {
namespace {

double smoothstep(double e0, double e1, double x) {
  double t = std::clamp((x - e0) / (e1 - e0), 0.0, 1.0);
  return t * t * (3 - 2 * t);
}

struct Sample {
  double r, g, b, a, z;
};

// The picture at (u, v) in [0, 1), v rising upward as in the file.
Sample at(double u, double v, double aspect) {
  Sample s{u, v, 1.0 - u, 1.0, -1.0 / (1.0 + 8.0 * u + 4.0 * v)};
  double cx = (u - 0.35) * aspect, cy = v - 0.55;
  if (cx * cx + cy * cy < 0.04) s = {1.0, 0.55, 0.1, 1.0, -1.0 / (1.5 + 6.0 * cy)};   // an orange disc
  if (u > 0.6 && u < 0.85 && v > 0.2 && v < 0.45) s = {0.95, 0.95, 0.95, 1.0, -0.5};  // a white box
  if (v < 0.08) {
    bool check = (int(u * 32) + int(v * 32 / 0.08 * 0.25)) % 2;
    s.r = s.g = s.b = check ? 0.9 : 0.1;  // a checkered strip
  }
  // A soft alpha edge: opaque inside, fading out toward the corners.
  double ex = (u - 0.5) * aspect, ey = v - 0.5;
  s.a = 1.0 - smoothstep(0.42, 0.58, std::sqrt(ex * ex + ey * ey));
  return s;
}

}  // namespace

int pattern(const PatternOptions& o) {
  int w = 0, h = 0;
  uint32_t compress = 0;
  if (!parseSize(o.size, w, h)) return usage("--size must be WxH, each from 1 to 32768: " + o.size);
  compressionNumber(o.compression, compress);
  TformatInfo format;
  std::string why;
  if (!outputFormat(o.out, "", format, why)) return fail(o.out, why);
  if (format.key != "kelp") return fail(o.out, "pattern writes IFF files only (kimg convert makes others of them)");
  Output output(o.out);
  if (!output.error().empty()) return fail(o.out, output.error());

  ILimage* im = ILopen(output.path().c_str(), "w");
  if (!im) return failCode(o.out, flerrno);
  uint32_t type = ILT_COLOR | (o.alpha ? ILT_ALPHA : 0) | (o.depth ? ILT_DEPTH : 0);
  int rc = ILsetsize(im, w, h);
  if (!rc) rc = ILsettype(im, int32_t(type));
  if (!rc) rc = ILsetbpp(im, o.bytes);
  if (!rc) rc = ILsetcompress(im, compress);
  std::vector<uint8_t> line(size_t(w) * 4 * size_t(o.bytes));
  std::vector<float> z(static_cast<size_t>(w));
  double full = o.bytes == 2 ? 65535.0 : 255.0;
  for (int y = 0; y < h && !rc; ++y) {
    for (int x = 0; x < w; ++x) {
      Sample s = at((x + 0.5) / w, (y + 0.5) / h, double(w) / h);
      double alpha = o.alpha ? s.a : 1.0;
      double channel[4] = {s.b * alpha, s.g * alpha, s.r * alpha, alpha};  // premultiplied
      for (int c = 0; c < 4; ++c) {
        auto v = uint32_t(std::lround(std::clamp(channel[c], 0.0, 1.0) * full));
        if (o.bytes == 2) {
          uint16_t e = uint16_t(v);
          std::memcpy(&line[(size_t(x) * 4 + size_t(c)) * 2], &e, 2);
        } else {
          line[size_t(x) * 4 + size_t(c)] = uint8_t(v);
        }
      }
      z[size_t(x)] = float(s.z);
    }
    rc = ILwriteline(im, line.data(), z.data());
  }
  int closed = ILclose(im);
  if (rc) return failCode(o.out, rc);
  return closed ? failCode(o.out, closed) : output.commit();
}

}  // namespace kimg
