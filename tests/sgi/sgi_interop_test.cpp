// SGI files mean the same to independent tools: what we write reads the
// same through ImageMagick and netpbm, and what they write reads the same
// through us.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "kelpimage/sgi/sgi.h"
#include "testutil.h"

using namespace kelptest;

namespace {
const char* kConvert = "/usr/bin/convert";

bool have(const std::string& tool) { return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0; }

struct Picture {
  unsigned w = 0, h = 0, channels = 0, maxval = 0;
  std::vector<unsigned> samples;  // top row first, channels interleaved
  unsigned at(unsigned x, unsigned y, unsigned c) const { return samples[(size_t(y) * w + x) * channels + c]; }
};

// Reads a binary PNM or PAM file.
Picture readNetpbm(const std::string& path) {
  auto b = readBytes(path);
  Picture p;
  size_t pos = 0;
  auto token = [&]() {
    std::string t;
    while (pos < b.size()) {
      char c = char(b[pos]);
      if (c == '#') {
        while (pos < b.size() && b[pos] != '\n') ++pos;
      } else if (std::isspace(static_cast<unsigned char>(c))) {
        if (!t.empty()) break;
        ++pos;
      } else {
        t += c;
        ++pos;
      }
    }
    return t;
  };
  std::string magic = token();
  if (magic == "P7") {
    for (std::string t = token(); t != "ENDHDR" && !t.empty(); t = token()) {
      if (t == "WIDTH")
        p.w = unsigned(std::stoul(token()));
      else if (t == "HEIGHT")
        p.h = unsigned(std::stoul(token()));
      else if (t == "DEPTH")
        p.channels = unsigned(std::stoul(token()));
      else if (t == "MAXVAL")
        p.maxval = unsigned(std::stoul(token()));
      else if (t == "TUPLTYPE")
        token();
    }
  } else {
    p.channels = magic == "P6" ? 3 : 1;
    p.w = unsigned(std::stoul(token()));
    p.h = unsigned(std::stoul(token()));
    p.maxval = unsigned(std::stoul(token()));
  }
  ++pos;  // one whitespace byte ends the header
  size_t n = size_t(p.w) * p.h * p.channels;
  for (size_t i = 0; i < n && pos < b.size(); ++i) {
    if (p.maxval > 255) {
      p.samples.push_back(unsigned(b[pos]) << 8 | b[pos + 1]);
      pos += 2;
    } else {
      p.samples.push_back(b[pos++]);
    }
  }
  return p;
}

void writePam(const std::string& path, const Picture& p) {
  std::ostringstream head;
  if (p.channels == 1 || p.channels == 3) {
    head << (p.channels == 3 ? "P6" : "P5") << "\n" << p.w << " " << p.h << "\n" << p.maxval << "\n";
  } else {
    head << "P7\nWIDTH " << p.w << "\nHEIGHT " << p.h << "\nDEPTH " << p.channels << "\nMAXVAL " << p.maxval
         << "\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
  }
  std::string h = head.str();
  std::vector<uint8_t> b(h.begin(), h.end());
  for (unsigned v : p.samples) {
    if (p.maxval > 255) b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
  }
  writeBytes(path, b);
}

unsigned sample(unsigned x, unsigned y, unsigned c, unsigned maxval) {
  unsigned v = (x < 6) ? 40 + c * 30 : (x * 13 + y * 29 + c * 71) % 256;
  return maxval > 255 ? (v * 257) ^ (x & 3) : v;
}

Picture pattern(unsigned w, unsigned h, unsigned channels, unsigned maxval) {
  Picture p{w, h, channels, maxval, {}};
  for (unsigned y = 0; y < h; ++y)
    for (unsigned x = 0; x < w; ++x)
      for (unsigned c = 0; c < channels; ++c) p.samples.push_back(sample(x, y, c, maxval));
  return p;
}

// Writes `p` with our library; SGI rows run from the bottom.
void writeOurs(const std::string& path, const Picture& p, unsigned storage) {
  IMAGE* im = iopen(path.c_str(), "w", storage | (p.maxval > 255 ? 2 : 1), 3, p.w, p.h, p.channels);
  ASSERT_NE(im, nullptr);
  std::vector<uint16_t> row(p.w);
  for (unsigned c = 0; c < p.channels; ++c)
    for (unsigned y = 0; y < p.h; ++y) {
      for (unsigned x = 0; x < p.w; ++x) row[x] = uint16_t(p.at(x, p.h - 1 - y, c));
      ASSERT_EQ(putrow(im, row.data(), y, c), int(p.w));
    }
  ASSERT_EQ(iclose(im), 0);
}

Picture readOurs(const std::string& path) {
  Picture p;
  IMAGE* im = iopen(path.c_str(), "r");
  if (!im) return p;
  p.w = im->xsize;
  p.h = im->ysize;
  p.channels = im->zsize;
  p.maxval = (im->type & 0xFF) == 2 ? 65535 : 255;
  p.samples.assign(size_t(p.w) * p.h * p.channels, 0);
  std::vector<uint16_t> row(p.w);
  for (unsigned c = 0; c < p.channels; ++c)
    for (unsigned y = 0; y < p.h; ++y) {
      getrow(im, row.data(), y, c);
      for (unsigned x = 0; x < p.w; ++x) p.samples[(size_t(p.h - 1 - y) * p.w + x) * p.channels + c] = row[x];
    }
  iclose(im);
  return p;
}

void expectSame(const Picture& a, const Picture& b, unsigned channels, const std::string& what, unsigned slack = 0) {
  ASSERT_EQ(a.w, b.w) << what;
  ASSERT_EQ(a.h, b.h) << what;
  for (unsigned y = 0; y < a.h; ++y)
    for (unsigned x = 0; x < a.w; ++x)
      for (unsigned c = 0; c < channels; ++c)
        ASSERT_NEAR(double(a.at(x, y, c)), double(b.at(x, y, c)), slack)
            << what << " at " << x << "," << y << " channel " << c;
}
}  // namespace

TEST(SGIInterop, OurFilesReadTheSameThroughImageMagickAndNetpbm) {
  if (!have(kConvert) || !have("sgitopnm")) GTEST_SKIP() << "ImageMagick or netpbm is not installed";
  TempDir dir;
  for (unsigned storage : {SGI_VERBATIM, SGI_RLE})
    for (unsigned maxval : {255u, 65535u})
      for (unsigned channels : {1u, 3u, 4u}) {
        Picture p = pattern(23, 9, channels, maxval);
        std::string sgi = dir.file("ours.sgi");
        writeOurs(sgi, p, storage);
        std::string what = "storage " + std::to_string(storage) + " maxval " + std::to_string(maxval) + " channels " +
                           std::to_string(channels);
        // ImageMagick, with every channel.
        std::string format = channels == 4 ? "pam" : "pnm";
        std::string out = dir.file("im." + format);
        ASSERT_EQ(std::system((std::string(kConvert) + " " + sgi + " -depth " + (maxval > 255 ? "16 " : "8 ") + format +
                               ":" + out + " 2>/dev/null")
                                  .c_str()),
                  0)
            << what;
        Picture im = readNetpbm(out);
        ASSERT_EQ(im.channels, channels) << what;
        expectSame(p, im, channels, "ImageMagick " + what);
        // netpbm, colour channels only.
        std::string pnm = dir.file("netpbm.pnm");
        ASSERT_EQ(std::system(("sgitopnm " + sgi + " > " + pnm + " 2>/dev/null").c_str()), 0) << what;
        Picture np = readNetpbm(pnm);  // its maxval is the file's largest sample
        Picture colour = p;
        if (channels == 4) {
          colour.channels = 3;
          colour.samples.clear();
          for (size_t i = 0; i < p.samples.size(); ++i)
            if (i % 4 != 3) colour.samples.push_back(p.samples[i]);
        }
        // sgitopnm rescales 16-bit samples from the file's largest value: one unit of rounding.
        expectSame(colour, np, channels == 1 ? 1 : 3, "sgitopnm " + what, maxval > 255 ? 1 : 0);
      }
}

TEST(SGIInterop, TheirFilesReadTheSameThroughUs) {
  if (!have(kConvert) || !have("pnmtosgi")) GTEST_SKIP() << "ImageMagick or netpbm is not installed";
  TempDir dir;
  for (unsigned maxval : {255u, 65535u})
    for (unsigned channels : {1u, 3u, 4u}) {
      Picture p = pattern(31, 7, channels, maxval);
      std::string src = dir.file(channels == 4 ? "src.pam" : "src.pnm");
      writePam(src, p);
      std::string what = "maxval " + std::to_string(maxval) + " channels " + std::to_string(channels);
      for (const char* compress : {"None", "RLE"}) {
        std::string sgi = dir.file("im.sgi");
        ASSERT_EQ(
            std::system(
                (std::string(kConvert) + " " + src + " -compress " + compress + " " + sgi + " 2>/dev/null").c_str()),
            0)
            << what;
        Picture back = readOurs(sgi);
        ASSERT_EQ(back.channels, channels) << what;
        expectSame(p, back, channels, std::string("ImageMagick ") + compress + " " + what);
      }
      if (channels == 4) continue;  // pnmtosgi takes PNM only
      for (const char* mode : {"-verbatim", "-rle"}) {
        std::string sgi = dir.file("np.sgi");
        ASSERT_EQ(std::system(("pnmtosgi " + std::string(mode) + " " + src + " > " + sgi + " 2>/dev/null").c_str()), 0)
            << what;
        Picture back = readOurs(sgi);
        expectSame(p, back, channels, std::string("pnmtosgi ") + mode + " " + what);
      }
    }
}
