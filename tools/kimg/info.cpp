// kimg info: what each picture is, as the library describes every format
// alike, and with --stats what its pixels hold; movies as the movie layer
// sees them.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "files.h"
#include "kelpimage/io/timagereader.h"
#include "movie.h"
#include "util.h"

namespace kimg {
namespace {

std::string valueText(const std::string& v) {
  bool printable = std::all_of(v.begin(), v.end(), [](char c) { return std::isprint(static_cast<unsigned char>(c)); });
  if (printable) return "\"" + v + "\"";
  std::string hex;
  char b[4];
  for (size_t i = 0; i < v.size() && i < 32; ++i) {
    std::snprintf(b, sizeof b, "%02x", static_cast<unsigned char>(v[i]));
    hex += b;
  }
  return (v.size() > 32 ? hex + "..." : hex) + " (" + std::to_string(v.size()) + " bytes)";
}

std::string samplesText(const TimageInfo& s) {
  const char* kind =
      TsampleIsFloat(s.sampleType) ? (s.sampleType == TsampleType::kHalf ? "halves" : "floats") : "integers";
  size_t bytes = TsampleBytes(s.sampleType);
  return std::to_string(s.bits) + "-bit " + kind + ", " + std::to_string(bytes) + " byte" + (bytes == 1 ? "" : "s") +
         " a channel";
}

std::string channelsText(const TimageInfo& s) {
  std::string text = s.colorChannels == 3 ? "RGB" : "Y";
  if (s.alpha) text += "A";
  if (s.depth) text += ", depth";
  return text;
}

// The first frame's description whole; later frames by their size and kind.
void printSpec(const TimageReader& r, int frame) {
  const TimageInfo& s = r.spec();
  if (frame > 0) {
    std::printf("  frame %-6d %d x %d, %s, %s\n", frame, s.width, s.height, channelsText(s).c_str(),
                samplesText(s).c_str());
    return;
  }
  std::printf("  format       %s (%s)\n", r.format().name.c_str(), r.format().key.c_str());
  std::printf("  size         %d x %d\n", s.width, s.height);
  std::printf("  channels     %s\n", channelsText(s).c_str());
  std::printf("  samples      %s\n", samplesText(s).c_str());
  if (!s.compression.empty()) std::printf("  compression  %s\n", s.compression.c_str());
  if (s.alpha)
    std::printf("  alpha        %s\n", s.association == Tassociation::kPremultiplied ? "premultiplied" : "straight");
  if (s.x || s.y || s.fullWidth > 0) std::printf("  origin       %d, %d\n", s.x, s.y);
  if (s.fullWidth > 0 && (s.fullWidth != s.width || s.fullHeight != s.height))
    std::printf("  window       %d x %d of %d x %d\n", s.width, s.height, s.fullWidth, s.fullHeight);
  if (s.pixelAspect != 1.0) std::printf("  pixel aspect %g\n", s.pixelAspect);
  if (s.tileWidth > 0) std::printf("  tile size    %d x %d\n", s.tileWidth, s.tileHeight);
  if (s.dpi > 0.0)
    std::printf("  dpi          %g\n", s.dpi);
  else
    std::printf("  dpi          not stored\n");
  std::printf("  frames       %d\n", s.frames);
  for (const auto& [name, value] : s.details) std::printf("  %-12s %s\n", name.c_str(), value.c_str());
  for (const auto& [tag, value] : s.fields) std::printf("  field %-6s %s\n", tag.c_str(), valueText(value).c_str());
}

struct Stat {
  double min = 1e300, max = -1e300, sum = 0;
  void add(double v) {
    min = std::min(min, v);
    max = std::max(max, v);
    sum += v;
  }
};

// Minimum, maximum and mean of each channel, in the file's own samples
// (integers as they are stored, halves and floats as numbers).
int printStats(TimageReader& r, const std::string& name, const std::string& path) {
  const TimageInfo& s = r.spec();
  const bool floats = TsampleIsFloat(s.sampleType);
  const TsampleType type = floats ? TsampleType::kFloat : s.sampleType;
  const int channels = s.channels();
  std::vector<Stat> stats(size_t(channels) + 1);
  std::vector<uint8_t> row(s.rowBytes(type));
  std::vector<float> depth(size_t(s.width));
  for (int32_t y = 0; y < s.height; ++y) {
    if (!r.readRows(y, y + 1, row.data(), type, 0, s.association, s.depth ? depth.data() : nullptr))
      return failFrom(name, path, r.error());
    for (size_t i = 0; i < size_t(s.width) * size_t(channels); ++i) {
      double v = type == TsampleType::kUint8    ? row[i]
                 : type == TsampleType::kUint16 ? reinterpret_cast<const uint16_t*>(row.data())[i]
                                                : reinterpret_cast<const float*>(row.data())[i];
      stats[i % size_t(channels)].add(v);
    }
    if (s.depth)
      for (float z : depth) stats.back().add(double(z));
  }
  const double count = double(s.width) * s.height;
  for (int c = 0; c < channels; ++c) {
    const char* label = c == s.colorChannels   ? "alpha"
                        : s.colorChannels == 1 ? "grey"
                        : c == 0               ? "red"
                        : c == 1               ? "green"
                                               : "blue";
    std::printf("  %-6s       min %g  max %g  mean %.3f\n", label, stats[size_t(c)].min, stats[size_t(c)].max,
                stats[size_t(c)].sum / count);
  }
  if (s.depth)
    std::printf("  depth        min %g  max %g  mean %g\n", stats.back().min, stats.back().max,
                stats.back().sum / count);
  return 0;
}

int infoPicture(const std::string& name, const std::string& path, bool stats) {
  TimageReader r;
  if (!r.open(path)) return failFrom(name, path, r.error());
  std::printf("%s\n", name.c_str());
  for (int frame = 0; frame < r.spec().frames; ++frame) {
    if (frame > 0 && !r.seekFrame(frame)) return failFrom(name, path, r.error());
    printSpec(r, frame);
    if (stats)
      if (int status = printStats(r, name, path)) return status;
  }
  return 0;
}

}  // namespace

int info(const std::vector<std::string>& files, bool stats) {
  int status = 0;
  for (const std::string& name : files) {
    Input input(name);
    int one;
    if (!input.error().empty())
      one = fail(name, input.error());
    else if (isAvi(input.path()))
      one = infoMovie(name, input.path());
    else
      one = infoPicture(name, input.path(), stats);
    status = status ? status : one;
  }
  return status;
}

}  // namespace kimg
