#include "kelpimage/io/timagereader.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "kelpimage/base/tparallel.h"
#include "kelpimage/io/backend.h"
#include "kelpimage/io/samples.h"

namespace {

// A stream read once into memory, which the reader keeps: the bytes are
// made before the stream over them.
struct HeldBytes {
  std::vector<uint8_t> bytes;
};
class HeldInput : private HeldBytes, public TmemoryInput {
 public:
  HeldInput(std::vector<uint8_t> held, const std::string& name)
      : HeldBytes{std::move(held)}, TmemoryInput(bytes.data(), bytes.size(), name) {}
};

// Rows at most this many bytes at once pass through a scratch buffer.
constexpr size_t kBandBytes = size_t(4) << 20;
constexpr int32_t kRowsAPiece = 16;  // rows converted on one thread at the least

}  // namespace

TimageReader::TimageReader() = default;
TimageReader::~TimageReader() = default;
TimageReader::TimageReader(TimageReader&& other) noexcept { *this = std::move(other); }

TimageReader& TimageReader::operator=(TimageReader&& other) noexcept {
  if (this != &other) {
    fOwned = std::move(other.fOwned);
    fStream = std::exchange(other.fStream, nullptr);
    fBackend = std::move(other.fBackend);
    fOptions = std::move(other.fOptions);
    fFormat = std::move(other.fFormat);
    fSpec = std::move(other.fSpec);
    fName = std::move(other.fName);
    fError = std::move(other.fError);
    fWarnings = std::move(other.fWarnings);
    fFrame = other.fFrame;
    fNext = other.fNext;
  }
  return *this;
}

bool TimageReader::fail(const std::string& why) {
  // A reason that names the file already keeps its own words.
  fError = why.rfind(fName + ": ", 0) == 0 ? why : fName + ": " + why;
  return false;
}

void TimageReader::close() {
  fBackend.reset();
  fOwned.reset();
  fStream = nullptr;
  fSpec = TimageInfo();
  fFrame = 0;
  fNext = 0;
}

bool TimageReader::open(const std::string& path, const TreadOptions& options) {
  close();
  fName = path;
  auto file = std::make_unique<TfileInput>(path);
  if (!file->isOpen()) return fail(file->error());
  return open(std::move(file), options);
}

bool TimageReader::open(std::unique_ptr<TinputStream> stream, const TreadOptions& options) {
  close();
  fName = stream ? stream->name() : std::string("(no stream)");
  if (!stream) return fail("no stream to read");
  if (!stream->canSeek()) {
    // A stream read once: its bytes are kept, so that the reader may look
    // at them again.
    std::vector<uint8_t> bytes;
    if (!stream->readRest(bytes)) return fail(stream->error().empty() ? "cannot be read" : stream->error());
    stream = std::make_unique<HeldInput>(std::move(bytes), fName);
  }
  fOwned = std::move(stream);
  fStream = fOwned.get();
  return start(options);
}

bool TimageReader::openMemory(const void* data, size_t size, const std::string& name, const TreadOptions& options) {
  return open(std::make_unique<TmemoryInput>(data, size, name), options);
}

bool TimageReader::start(const TreadOptions& options) {
  fOptions = options;
  fError.clear();
  fWarnings.clear();
  if (!options.key.empty()) {
    if (!TformatCatalogue::find(options.key, fFormat)) return fail("no format \"" + options.key + "\" is known");
  } else {
    uint8_t head[64];
    int64_t n = fStream->read(head, sizeof head);
    if (n < 0) return fail(fStream->error());
    if (n == 0) return fail("the file is empty");
    if (!TformatCatalogue::identify(head, size_t(n), fFormat))
      return fail("not a picture of a format the library reads");
  }
  if (!fFormat.canRead) return fail("the " + fFormat.name + " format is not read");
  if ((!options.layer.empty() || !options.set.empty() || options.alpha >= 0) && !fFormat.layers)
    return fail("a picture of the " + fFormat.name + " format has no layers, sets or alpha channels to choose from");
  return restart();
}

bool TimageReader::restart() {
  if (!fStream->seek(0)) return fail(fStream->error());
  fBackend = kelpio::makeReader(fFormat);
  std::string why;
  if (!fBackend || !fBackend->open(*fStream, fOptions, fSpec, why) ||
      (fFrame > 0 && !fBackend->seekFrame(fFrame, fSpec, why))) {
    fBackend.reset();
    return fail(why.empty() ? "cannot be read" : why);
  }
  fNext = 0;
  return true;
}

bool TimageReader::seekFrame(int frame) {
  if (!fBackend) return fail("no picture is open");
  if (frame < 0 || frame >= fSpec.frames) return fail("has no frame " + std::to_string(frame));
  std::string why;
  if (!fBackend->seekFrame(frame, fSpec, why)) return fail(why);
  fFrame = frame;
  fNext = 0;
  return true;
}

// A backend that reads in order gives the rows before `y` to nothing.
bool TimageReader::skipTo(int32_t y) {
  if (fBackend->anyOrder() || y == fNext) return true;
  if (y < fNext && !restart()) return false;
  size_t rowBytes = fSpec.rowBytes(fSpec.sampleType);
  std::vector<uint8_t> scratch(rowBytes);
  std::vector<float> depth(fSpec.depth ? size_t(fSpec.width) : 0);
  std::string why;
  for (; fNext < y; ++fNext)
    if (!fBackend->readRows(fNext, 1, scratch.data(), rowBytes, depth.empty() ? nullptr : depth.data(), 0, why))
      return fail(why);
  return true;
}

bool TimageReader::readRows(int32_t y0, int32_t y1, void* pixels, TsampleType type, ptrdiff_t rowStride,
                            Tassociation association, float* depth, ptrdiff_t depthStride) {
  if (!fBackend) return fail("no picture is open");
  if (y0 < 0 || y1 > fSpec.height || y0 > y1)
    return fail("rows " + std::to_string(y0) + " to " + std::to_string(y1) + " lie outside a picture of " +
                std::to_string(fSpec.height));
  if (!pixels && !depth) return true;
  if (!skipTo(y0)) return false;
  const int channels = fSpec.channels();
  const size_t width = size_t(fSpec.width);
  const size_t outRow = rowStride ? size_t(rowStride) : fSpec.rowBytes(type);
  const size_t depthRow = depthStride ? size_t(depthStride) : width * sizeof(float);
  float* wantedDepth = fSpec.depth ? depth : nullptr;
  Tassociation fileAssociation = fSpec.alpha ? fSpec.association : association;
  bool direct = type == fSpec.sampleType && fileAssociation == association;
  std::string why;
  if (direct) {
    std::vector<uint8_t> scratch;
    uint8_t* to = static_cast<uint8_t*>(pixels);
    if (!to) {
      scratch.resize(fSpec.rowBytes(type) * size_t(y1 - y0));
      to = scratch.data();
    }
    if (!fBackend->readRows(y0, y1 - y0, to, pixels ? outRow : fSpec.rowBytes(type), wantedDepth, depthRow, why))
      return fail(why);
    fNext = y1;
    fWarnings = fWarnings.empty() && !why.empty() ? why : fWarnings;
    return true;
  }
  // Through a band of rows as the file holds them.
  const size_t fileRow = fSpec.rowBytes(fSpec.sampleType);
  const int32_t band = int32_t(std::max<size_t>(1, kBandBytes / std::max<size_t>(1, fileRow)));
  std::vector<uint8_t> held(fileRow * size_t(std::min(band, y1 - y0)));
  for (int32_t y = y0; y < y1; y += band) {
    int32_t count = std::min(band, y1 - y);
    float* depthAt = wantedDepth
                         ? reinterpret_cast<float*>(reinterpret_cast<uint8_t*>(wantedDepth) + size_t(y - y0) * depthRow)
                         : nullptr;
    if (!fBackend->readRows(y, count, held.data(), fileRow, depthAt, depthRow, why)) return fail(why);
    // The band's rows converted in pieces, on the threads the caller allows.
    const int32_t pieces = std::min<int32_t>(int32_t(TthreadsFor(unsigned(std::max(fOptions.threads, 0)), 64)),
                                             std::max<int32_t>(1, count / kRowsAPiece));
    if (pixels)
      TparallelFor(size_t(pieces), unsigned(pieces), [&](size_t piece) {
        std::vector<uint8_t> scratch;
        for (int32_t i = int32_t(piece) * count / pieces; i < int32_t(piece + 1) * count / pieces; ++i)
          kelpio::convertPixels(held.data() + size_t(i) * fileRow, fSpec.sampleType, fileAssociation,
                                static_cast<uint8_t*>(pixels) + size_t(y - y0 + i) * outRow, type, association,
                                channels, fSpec.alpha, width, scratch);
      });
    fNext = y + count;
  }
  if (!why.empty() && fWarnings.empty()) fWarnings = why;
  return true;
}

bool TimageReader::readRegion(int32_t x0, int32_t y0, int32_t x1, int32_t y1, void* pixels, TsampleType type,
                              ptrdiff_t rowStride, Tassociation association, float* depth, ptrdiff_t depthStride) {
  if (!fBackend) return fail("no picture is open");
  if (x0 < 0 || y0 < 0 || x1 > fSpec.width || y1 > fSpec.height || x0 > x1 || y0 > y1)
    return fail("the region lies outside the picture");
  size_t pixelBytes = size_t(fSpec.channels()) * TsampleBytes(type);
  size_t outRow = rowStride ? size_t(rowStride) : size_t(x1 - x0) * pixelBytes;
  size_t depthRow = depthStride ? size_t(depthStride) : size_t(x1 - x0) * sizeof(float);
  std::vector<uint8_t> row(fSpec.rowBytes(type));
  std::vector<float> rowDepth(fSpec.depth && depth ? size_t(fSpec.width) : 0);
  for (int32_t y = y0; y < y1; ++y) {
    if (!readRows(y, y + 1, row.data(), type, 0, association, rowDepth.empty() ? nullptr : rowDepth.data()))
      return false;
    if (pixels)
      std::memcpy(static_cast<uint8_t*>(pixels) + size_t(y - y0) * outRow, row.data() + size_t(x0) * pixelBytes,
                  size_t(x1 - x0) * pixelBytes);
    if (!rowDepth.empty())
      std::memcpy(reinterpret_cast<uint8_t*>(depth) + size_t(y - y0) * depthRow, rowDepth.data() + x0,
                  size_t(x1 - x0) * sizeof(float));
  }
  return true;
}

bool TimageReader::readImage(void* pixels, TsampleType type, ptrdiff_t rowStride, Tassociation association,
                             float* depth) {
  return readRows(0, fSpec.height, pixels, type, rowStride, association, depth);
}
