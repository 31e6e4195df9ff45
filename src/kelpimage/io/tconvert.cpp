#include "kelpimage/io/tconvert.h"

#include <algorithm>
#include <vector>

#include "kelpimage/io/backend.h"
#include "kelpimage/io/bands.h"
#include "kelpimage/io/resample.h"

namespace {

// Rows at most this many bytes at once go through a band.
constexpr size_t kBandBytes = size_t(4) << 20;

void note(std::string* warnings, const std::string& text) {
  if (!warnings || text.empty() || warnings->find(text) != std::string::npos) return;
  *warnings += (warnings->empty() ? "" : "\n") + text;
}

class Conversion {
 public:
  Conversion(const std::string& input, const std::string& output, const TconvertOptions& options, std::string& error,
             std::string* warnings)
      : fInput(input), fOutput(output), fOptions(options), fError(error), fWarnings(warnings) {}

  bool run() {
    TreadOptions read = fOptions.read;
    read.threads = fOptions.threads;
    if (!fReader.open(fInput, read)) return fail(fReader.error());
    if (fOptions.key.empty() ? !TformatCatalogue::forName(fOutput, fFormat)
                             : !TformatCatalogue::find(fOptions.key, fFormat))
      return fail(fOutput + ": " +
                  (fOptions.key.empty() ? "no format the library writes has this name's extension"
                                        : "no format \"" + fOptions.key + "\" is known"));
    const int frames = fReader.spec().frames;
    if (fOptions.frame >= frames)
      return fail(fInput + ": has no frame " + std::to_string(fOptions.frame) + " (frames 0 to " +
                  std::to_string(frames - 1) + ")");
    if (copiesWhole()) return kelpio::copyDocument(fInput, fOutput, fError);
    int first = std::max(fOptions.frame, 0);
    bool every = fOptions.frame < 0 && fFormat.frames && !fReader.format().layers;
    int last = every ? frames - 1 : first;
    for (int frame = first; frame <= last; ++frame)
      if (!convertFrame(frame, frame == first)) return false;
    if (!fWriter.close()) return fail(fWriter.error());
    note(fWarnings, fReader.warnings());
    return true;
  }

 private:
  bool fail(const std::string& why) {
    fWriter.abandon();
    fError = why;
    return false;
  }

  bool resizing() const { return fOptions.width > 0 && fOptions.height > 0; }

  // A document to a document, whole: its own writer keeps its layers.
  bool copiesWhole() const {
    const TreadOptions& r = fOptions.read;
    return fReader.format().key == "psd" && fFormat.key == "psd" && !resizing() && fOptions.frame < 0 &&
           r.layer.empty() && r.set.empty() && r.alpha < 0 && fOptions.write.values.empty();
  }

  // What the output is told it is handed.
  TimageInfo outputSpec() const {
    TimageInfo spec = fReader.spec();
    // A file's compression carries over only within its own format.
    if (fReader.format().key != fFormat.key) spec.compression.clear();
    if (resizing()) {
      spec.width = fOptions.width;
      spec.height = fOptions.height;
      spec.fullWidth = spec.fullHeight = 0;
      spec.depth = false;
      if (TsampleIsFloat(spec.sampleType)) spec.sampleType = TsampleType::kUint16;
    }
    return spec;
  }

  bool convertFrame(int frame, bool first) {
    if ((frame > 0 || fReader.frame() != frame) && !fReader.seekFrame(frame)) return fail(fReader.error());
    TimageInfo spec = outputSpec();
    bool started = first ? fWriter.create(fOutput, spec, fOptions.write, fFormat.key) : fWriter.nextFrame(spec);
    if (!started) return fail(fWriter.error());
    note(fWarnings, fWriter.warnings());
    return resizing() ? pumpResized() : pump();
  }

  // Band by band, read in the sample type and association the file gets:
  // one conversion, in the reader. The next band is read while the last is
  // written, unless the caller asked for one thread.
  bool pump() {
    const TimageInfo& file = fWriter.spec();
    const TimageInfo& in = fReader.spec();
    const TsampleType type = file.sampleType;
    const Tassociation association = file.alpha ? file.association : Tassociation::kStraight;
    const size_t rowBytes = in.rowBytes(type);
    const int32_t band = int32_t(std::clamp<size_t>(kBandBytes / std::max<size_t>(rowBytes, 1), 1, size_t(in.height)));
    std::vector<uint8_t> pixels[2];
    std::vector<float> depth[2];
    for (int slot = 0; slot < 2; ++slot) {
      pixels[slot].resize(rowBytes * size_t(band));
      depth[slot].resize(file.depth ? size_t(in.width) * size_t(band) : 0);
    }
    auto z = [&](int slot) { return depth[slot].empty() ? nullptr : depth[slot].data(); };
    std::string readError, writeError;
    auto read = [&](int32_t y0, int32_t y1, int slot) {
      if (fReader.readRows(y0, y1, pixels[slot].data(), type, 0, association, z(slot))) return true;
      readError = fReader.error();
      return false;
    };
    auto write = [&](int32_t y0, int32_t y1, int slot) {
      if (fWriter.writeRows(y0, y1, pixels[slot].data(), type, 0, association, z(slot))) return true;
      writeError = fWriter.error();
      return false;
    };
    if (kelpio::runBands(in.height, band, fOptions.threads != 1, read, write)) return true;
    return fail(!writeError.empty() ? writeError : readError);
  }

  bool pumpResized() {
    kelpio::Resampler zoom;
    std::string why;
    if (!zoom.start(fReader, fOptions.width, fOptions.height, fOptions.filter, fOptions.blurX, fOptions.blurY,
                    fOptions.threads, why))
      return fail(fInput + ": cannot be resized: " + why);
    TimageInfo spec = outputSpec();
    std::vector<uint8_t> row(spec.rowBytes(zoom.type()));
    for (int32_t y = 0; y < spec.height; ++y) {
      if (!zoom.next(row.data(), why)) return fail(why.rfind(fInput, 0) == 0 ? why : fInput + ": " + why);
      if (!fWriter.writeRows(y, y + 1, row.data(), zoom.type(), 0, Tassociation::kPremultiplied))
        return fail(fWriter.error());
    }
    return true;
  }

  const std::string& fInput;
  const std::string& fOutput;
  const TconvertOptions& fOptions;
  std::string& fError;
  std::string* fWarnings;
  TimageReader fReader;
  TimageWriter fWriter;
  TformatInfo fFormat;
};

}  // namespace

bool TconvertImage(const std::string& input, const std::string& output, const TconvertOptions& options,
                   std::string& error, std::string* warnings) {
  error.clear();
  if (warnings) warnings->clear();
  return Conversion(input, output, options, error, warnings).run();
}
