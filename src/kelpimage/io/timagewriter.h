// Writing a picture in any format the library writes, to a file (whole or
// not at all), a block of memory or a caller's stream: the caller describes
// what it hands in, and the writer keeps as much of it as the format can
// hold, converting samples and association as the format needs. Each
// writer keeps its own error; one writer is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kelpimage/base/tstream.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "kelpimage/io/timageinfo.h"
#include "kelpimage/kelpexport.h"

namespace kelpio {
class WriterBackend;
}

// Options by the names the catalogue lists for the format ("Quality").
struct KELP_API TwriteOptions {
  std::vector<std::pair<std::string, double>> values;
  void set(const std::string& name, double value);
  // The option's value, or `fallback`; case does not matter.
  double get(const std::string& name, double fallback) const;
};

class KELP_API TimageWriter {
 public:
  TimageWriter();
  ~TimageWriter();  // a writer never closed leaves nothing behind
  TimageWriter(TimageWriter&& other) noexcept;
  TimageWriter& operator=(TimageWriter&& other) noexcept;
  TimageWriter(const TimageWriter&) = delete;
  TimageWriter& operator=(const TimageWriter&) = delete;

  // `spec` describes what the caller hands in. The format is `key`, or
  // the one the name's extension says. False, with the reason, when the
  // format cannot be written or an option is not one of its own or is out
  // of its range: then nothing is written.
  bool create(const std::string& path, const TimageInfo& spec, const TwriteOptions& options = {},
              const std::string& key = {});
  // To a stream, which the writer keeps and finishes at close().
  bool create(std::unique_ptr<ToutputStream> stream, const std::string& key, const TimageInfo& spec,
              const TwriteOptions& options = {});
  // Into memory: at a close() that succeeds, `bytes` gets the file.
  bool createMemory(std::vector<uint8_t>& bytes, const std::string& key, const TimageInfo& spec,
                    const TwriteOptions& options = {});
  bool isOpen() const { return fBackend != nullptr; }

  // What the file gets: the format's nearest sample type, its association,
  // and what it cannot hold left out.
  const TimageInfo& spec() const { return fFileSpec; }
  const TformatInfo& format() const { return fFormat; }

  // Rows y0 up to y1, from the top down and in order: colour then alpha
  // interleaved as the description given to create() says, samples of `type`, colour in the
  // given association; depth as floats when the description has it.
  bool writeRows(int32_t y0, int32_t y1, const void* pixels, TsampleType type, ptrdiff_t rowStride = 0,
                 Tassociation association = Tassociation::kStraight, const float* depth = nullptr,
                 ptrdiff_t depthStride = 0);
  bool writeImage(const void* pixels, TsampleType type, ptrdiff_t rowStride = 0,
                  Tassociation association = Tassociation::kStraight, const float* depth = nullptr);
  // Ends the frame written, and starts another of this description.
  bool nextFrame(const TimageInfo& spec);
  // Writes the file to its end and puts it in place. False, with the
  // reason, when any of it failed: then nothing is left at the target.
  bool close();
  // Gives the file up: the target stays as it was.
  void abandon();

  const std::string& error() const { return fError; }
  // What the format could not hold (alpha, depth, samples narrowed).
  const std::string& warnings() const { return fWarnings; }

 private:
  bool start(const TimageInfo& spec, const TwriteOptions& options);
  TimageInfo fileSpecFor(const TimageInfo& spec);
  void warn(const std::string& text);
  bool fail(const std::string& why);

  std::unique_ptr<ToutputStream> fStream;
  std::unique_ptr<kelpio::WriterBackend> fBackend;
  TformatInfo fFormat;
  TimageInfo fSpec, fFileSpec;
  std::string fName, fError, fWarnings;
  int32_t fNext = 0;
  std::vector<uint8_t> fRow;
};
