// SGI rgb files through the library's own SGI functions: 8 and 16-bit, grey
// or colour, with alpha, rows in any order; written run-length unless
// "Compression" is 0. Their colour is taken as IFF's, premultiplied.
#include <cstring>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/io/backend.h"
#include "kelpimage/sgi/sgi.h"

namespace kelpio {
namespace {

// The text in double quotes (built up a piece at a time: GCC 12 at -O3
// warns of overlaps that a concatenation cannot have).
std::string quoted(const char* text, size_t size) {
  std::string out(1, '"');
  out.append(text, size);
  out.push_back('"');
  return out;
}

// The SGI functions say why they fail as reports: this call catches them,
// and the host's handler hears nothing of it.
using CatchReports = TreportCatcher;

class SgiReader : public ReaderBackend {
 public:
  ~SgiReader() override {
    if (fImage) iclose(fImage);
  }

  bool open(TinputStream& in, const TreadOptions&, TimageInfo& spec, std::string& why) override {
    const std::string& path = in.path();
    if (path.empty()) return why = in.error(), false;
    CatchReports reports;
    fImage = iopen(path.c_str(), "r");
    if (!fImage) return why = reports.first("not an SGI picture this library reads"), false;
    spec = TimageInfo();
    spec.width = int32_t(fImage->xsize);
    spec.height = int32_t(fImage->ysize);
    unsigned z = fImage->zsize;
    spec.colorChannels = z >= 3 ? 3 : 1;
    spec.alpha = z == 2 || z >= 4;
    spec.association = Tassociation::kStraight;  // as every other reader of the format takes it
    fWide = (fImage->type & 0xFF) == 2;
    spec.sampleType = fWide ? TsampleType::kUint16 : TsampleType::kUint8;
    spec.bits = fWide ? 16 : 8;
    spec.compression = (fImage->type & 0xFF00) ? "run-length" : "verbatim";
    spec.details = {{"dimensions", std::to_string(fImage->dim)},
                    {"stored range", std::to_string(fImage->min) + " to " + std::to_string(fImage->max)},
                    {"name", quoted(fImage->name, strnlen(fImage->name, 80))}};
    fSpec = spec;
    fRow.resize(size_t(spec.width) + 1);
    return true;
  }

  bool anyOrder() const override { return true; }

  bool readRows(int32_t y0, int32_t count, uint8_t* pixels, size_t rowBytes, float*, size_t,
                std::string& why) override {
    const int channels = fSpec.channels();
    const unsigned width = fImage->xsize;
    CatchReports reports;
    for (int32_t i = 0; i < count; ++i) {
      unsigned y = unsigned(fSpec.height - 1 - (y0 + i));  // the file's rows rise from the bottom
      uint8_t* row = pixels + size_t(i) * rowBytes;
      for (int c = 0; c < channels; ++c) {
        if (getrow(fImage, fRow.data(), y, unsigned(c)) != int(width))
          return why = reports.first("a row cannot be read"), false;
        if (fWide) {
          auto* out = reinterpret_cast<uint16_t*>(row);
          for (unsigned x = 0; x < width; ++x) out[size_t(x) * size_t(channels) + size_t(c)] = fRow[x];
        } else {
          for (unsigned x = 0; x < width; ++x) row[size_t(x) * size_t(channels) + size_t(c)] = uint8_t(fRow[x]);
        }
      }
    }
    return true;
  }

 private:
  IMAGE* fImage = nullptr;
  TimageInfo fSpec;
  bool fWide = false;
  std::vector<uint16_t> fRow;
};

class SgiWriter : public WriterBackend {
 public:
  ~SgiWriter() override {
    if (fImage) iclose(fImage);
  }

  bool open(ToutputStream& out, const TimageInfo& spec, const TwriteOptions& options, std::string& why) override {
    const std::string& path = out.path();
    if (path.empty()) return why = out.error(), false;
    fSpec = spec;
    fWide = spec.sampleType == TsampleType::kUint16;
    // The option, else as the description says (a copy keeps its file's), else run-length.
    bool verbatim =
        options.get("Compression", spec.compression == "none" || spec.compression == "verbatim" ? 0 : 1) == 0;
    unsigned type = (verbatim ? SGI_VERBATIM : SGI_RLE) | (fWide ? 2u : 1u);
    CatchReports reports;
    fImage = iopen(path.c_str(), "w", type, 3, unsigned(spec.width), unsigned(spec.height), unsigned(spec.channels()));
    if (!fImage) return why = reports.first("cannot be created"), false;
    fRow.resize(size_t(spec.width));
    return true;
  }

  bool writeRows(int32_t y0, int32_t count, const uint8_t* pixels, size_t rowBytes, const float*, size_t,
                 std::string& why) override {
    const int channels = fSpec.channels();
    CatchReports reports;
    for (int32_t i = 0; i < count; ++i) {
      unsigned y = unsigned(fSpec.height - 1 - (y0 + i));
      const uint8_t* row = pixels + size_t(i) * rowBytes;
      for (int c = 0; c < channels; ++c) {
        for (size_t x = 0; x < size_t(fSpec.width); ++x)
          fRow[x] = fWide ? reinterpret_cast<const uint16_t*>(row)[x * size_t(channels) + size_t(c)]
                          : row[x * size_t(channels) + size_t(c)];
        if (putrow(fImage, fRow.data(), y, unsigned(c)) != fSpec.width)
          return why = reports.first("a row cannot be written"), false;
      }
    }
    return true;
  }

  bool close(std::string& why) override {
    CatchReports reports;
    int rc = iclose(fImage);
    fImage = nullptr;
    if (rc != 0) why = reports.first("the file cannot be written to its end");
    return rc == 0;
  }

 private:
  IMAGE* fImage = nullptr;
  TimageInfo fSpec;
  bool fWide = false;
  std::vector<uint16_t> fRow;
};

}  // namespace

std::unique_ptr<ReaderBackend> sgiReader() { return std::make_unique<SgiReader>(); }
std::unique_ptr<WriterBackend> sgiWriter() { return std::make_unique<SgiWriter>(); }

}  // namespace kelpio
