#include "kelpimage/io/timagewriter.h"

#include <strings.h>

#include <cmath>
#include <cstring>
#include <utility>

#include "kelpimage/io/backend.h"
#include "kelpimage/io/samples.h"

void TwriteOptions::set(const std::string& name, double value) {
  for (auto& [n, v] : values)
    if (strcasecmp(n.c_str(), name.c_str()) == 0) {
      v = value;
      return;
    }
  values.emplace_back(name, value);
}

double TwriteOptions::get(const std::string& name, double fallback) const {
  for (const auto& [n, v] : values)
    if (strcasecmp(n.c_str(), name.c_str()) == 0) return v;
  return fallback;
}

namespace {

// Memory whose bytes go to the caller's vector once the file is whole.
class IntoVector : public TmemoryOutput {
 public:
  explicit IntoVector(std::vector<uint8_t>& into) : TmemoryOutput("memory"), fInto(into) {}
  bool finish() override {
    if (!TmemoryOutput::finish()) return false;
    fInto = std::move(bytes());
    return true;
  }

 private:
  std::vector<uint8_t>& fInto;
};

}  // namespace

TimageWriter::TimageWriter() = default;

TimageWriter::~TimageWriter() { abandon(); }

TimageWriter::TimageWriter(TimageWriter&& other) noexcept { *this = std::move(other); }

TimageWriter& TimageWriter::operator=(TimageWriter&& other) noexcept {
  if (this != &other) {
    abandon();
    fStream = std::move(other.fStream);
    fBackend = std::move(other.fBackend);
    fFormat = std::move(other.fFormat);
    fSpec = std::move(other.fSpec);
    fFileSpec = std::move(other.fFileSpec);
    fName = std::move(other.fName);
    fError = std::move(other.fError);
    fWarnings = std::move(other.fWarnings);
    fNext = other.fNext;
  }
  return *this;
}

bool TimageWriter::fail(const std::string& why) {
  fError = why.rfind(fName + ": ", 0) == 0 ? why : fName + ": " + why;
  return false;
}

void TimageWriter::abandon() {
  fBackend.reset();
  if (auto* file = dynamic_cast<TfileOutput*>(fStream.get())) file->abandon();
  fStream.reset();
}

bool TimageWriter::create(const std::string& path, const TimageInfo& spec, const TwriteOptions& options,
                          const std::string& key) {
  abandon();
  fName = path;
  if (key.empty() ? !TformatCatalogue::forName(path, fFormat) : !TformatCatalogue::find(key, fFormat))
    return fail(key.empty() ? "no format the library writes has this name's extension"
                            : "no format \"" + key + "\" is known");
  // Writers that tell a variant of their format by the name see it.
  auto out = std::make_unique<TfileOutput>(path, !fFormat.builtIn);
  if (!out->isOpen()) return fail(out->error());
  fStream = std::move(out);
  return start(spec, options);
}

bool TimageWriter::create(std::unique_ptr<ToutputStream> stream, const std::string& key, const TimageInfo& spec,
                          const TwriteOptions& options) {
  abandon();
  fName = stream ? stream->name() : std::string("(no stream)");
  if (!stream) return fail("no stream to write");
  if (!TformatCatalogue::find(key, fFormat)) return fail("no format \"" + key + "\" is known");
  fStream = std::move(stream);
  return start(spec, options);
}

bool TimageWriter::createMemory(std::vector<uint8_t>& bytes, const std::string& key, const TimageInfo& spec,
                                const TwriteOptions& options) {
  return create(std::make_unique<IntoVector>(bytes), key, spec, options);
}

void TimageWriter::warn(const std::string& text) {
  if (fWarnings.find(text) == std::string::npos) fWarnings += (fWarnings.empty() ? "" : "; ") + text;
}

TimageInfo TimageWriter::fileSpecFor(const TimageInfo& spec) {
  TimageInfo file = spec;
  file.sampleType = fFormat.nearestWritten(spec.sampleType);
  if (file.sampleType != spec.sampleType)
    warn(std::string(TsampleName(spec.sampleType)) + " samples are written as " + TsampleName(file.sampleType));
  if (spec.alpha && !fFormat.alpha) {
    file.alpha = false;
    warn("the format holds no alpha: it is left out");
  }
  if (spec.depth && !fFormat.depth) {
    file.depth = false;
    warn("the format holds no depth: it is left out");
  }
  if (file.alpha && !fFormat.anyAssociation) file.association = fFormat.association;
  if (!file.alpha) file.association = Tassociation::kStraight;
  file.bits = int(TsampleBytes(file.sampleType) * 8);
  return file;
}

bool TimageWriter::start(const TimageInfo& spec, const TwriteOptions& options) {
  fError.clear();
  fWarnings.clear();
  if (!fFormat.canWrite) return fail("the " + fFormat.name + " format is not written");
  if (spec.width < 1 || spec.height < 1) return fail("a picture needs a size");
  if (spec.colorChannels != 1 && spec.colorChannels != 3) return fail("a picture has 1 or 3 colour channels");
  for (const auto& [name, value] : options.values) {
    std::string why;
    if (!fFormat.checkOption(name, value, why)) return fail(why);
  }
  fSpec = spec;
  fFileSpec = fileSpecFor(spec);
  fBackend = kelpio::makeWriter(fFormat);
  std::string why;
  if (!fBackend || !fBackend->open(*fStream, fFileSpec, options, why)) {
    abandon();
    return fail(why.empty() ? "cannot be written" : why);
  }
  fNext = 0;
  return true;
}

bool TimageWriter::writeRows(int32_t y0, int32_t y1, const void* pixels, TsampleType type, ptrdiff_t rowStride,
                             Tassociation association, const float* depth, ptrdiff_t depthStride) {
  if (!fBackend) return fail("no picture is open for writing");
  if (y0 != fNext || y1 > fSpec.height || y0 > y1)
    return fail("rows are written in order from the top: row " + std::to_string(fNext) + " comes next, not " +
                std::to_string(y0));
  const size_t width = size_t(fSpec.width);
  const size_t inRow = rowStride ? size_t(rowStride) : fSpec.rowBytes(type);
  const size_t depthRow = depthStride ? size_t(depthStride) : width * sizeof(float);
  const float* keptDepth = fFileSpec.depth ? depth : nullptr;
  if (fFileSpec.depth && !depth) return fail("the picture has depth, and none was handed in");
  const size_t fileRow = fFileSpec.rowBytes(fFileSpec.sampleType);
  Tassociation from = fSpec.alpha ? association : fFileSpec.association;
  bool direct = type == fFileSpec.sampleType && fSpec.alpha == fFileSpec.alpha &&
                (!fFileSpec.alpha || from == fFileSpec.association);
  std::string why;
  if (direct) {
    if (!fBackend->writeRows(y0, y1 - y0, static_cast<const uint8_t*>(pixels), inRow, keptDepth, depthRow, why))
      return fail(why);
    fNext = y1;
    return true;
  }
  const int inChannels = fSpec.channels(), outChannels = fFileSpec.channels();
  fRow.resize(fileRow);
  std::vector<uint8_t> scratch, narrowed;
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* in = static_cast<const uint8_t*>(pixels) + size_t(y - y0) * inRow;
    if (inChannels != outChannels) {
      // The alpha the format cannot hold goes, after the colour is made
      // straight, as the format will show it.
      narrowed.assign(in, in + fSpec.rowBytes(type));
      if (from == Tassociation::kPremultiplied) kelpio::unpremultiply(narrowed.data(), type, inChannels, width);
      size_t sample = TsampleBytes(type);
      for (size_t x = 0; x < width; ++x)
        std::memmove(narrowed.data() + x * size_t(outChannels) * sample,
                     narrowed.data() + x * size_t(inChannels) * sample, size_t(outChannels) * sample);
      kelpio::convertSamples(narrowed.data(), type, fRow.data(), fFileSpec.sampleType, width * size_t(outChannels));
    } else {
      kelpio::convertPixels(in, type, from, fRow.data(), fFileSpec.sampleType, fFileSpec.association, outChannels,
                            fFileSpec.alpha, width, scratch);
    }
    const float* depthAt =
        keptDepth
            ? reinterpret_cast<const float*>(reinterpret_cast<const uint8_t*>(keptDepth) + size_t(y - y0) * depthRow)
            : nullptr;
    if (!fBackend->writeRows(y, 1, fRow.data(), fileRow, depthAt, depthRow, why)) return fail(why);
  }
  fNext = y1;
  return true;
}

bool TimageWriter::writeImage(const void* pixels, TsampleType type, ptrdiff_t rowStride, Tassociation association,
                              const float* depth) {
  return writeRows(0, fSpec.height, pixels, type, rowStride, association, depth);
}

bool TimageWriter::nextFrame(const TimageInfo& spec) {
  if (!fBackend) return fail("no picture is open for writing");
  if (fNext != fSpec.height) return fail("the frame before is not whole");
  if (!fFormat.frames) return fail("the " + fFormat.name + " format holds one picture");
  fSpec = spec;
  fFileSpec = fileSpecFor(spec);
  std::string why;
  if (!fBackend->nextFrame(fFileSpec, why)) return fail(why);
  fNext = 0;
  return true;
}

bool TimageWriter::close() {
  if (!fBackend) return fail("no picture is open for writing");
  std::string why, ended;
  bool ok = fNext == fSpec.height;
  if (!ok) why = "only " + std::to_string(fNext) + " of " + std::to_string(fSpec.height) + " rows were written";
  if (!fBackend->close(ended) && ok) {
    ok = false;
    why = ended;
  }
  fBackend.reset();
  if (ok && !fStream->finish()) {
    ok = false;
    why = fStream->error();
  }
  if (!ok) {
    abandon();
    return fail(why.empty() ? "cannot be written" : why);
  }
  fStream.reset();
  return true;
}
