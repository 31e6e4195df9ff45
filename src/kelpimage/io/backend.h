// What each kind of file does behind TimageReader and TimageWriter: the
// library's own IFF, SGI and Photoshop code, and the plug-ins.
#pragma once

#include <memory>
#include <string>

#include "kelpimage/base/tstream.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "kelpimage/io/timageinfo.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/io/timagewriter.h"

namespace kelpio {

// Reads one file. Rows are counted from the top and handed over as the file
// holds them: colour then alpha interleaved, in spec.sampleType, colour in
// spec.association; depth, when asked for, as floats.
class ReaderBackend {
 public:
  virtual ~ReaderBackend() = default;
  // Reads the header: nothing the size of the picture is decoded or made.
  virtual bool open(TinputStream& in, const TreadOptions& options, TimageInfo& spec, std::string& why) = 0;
  virtual bool seekFrame(int frame, TimageInfo& spec, std::string& why);
  // Rows y0 to y0 + count - 1, each `rowBytes` apart.
  virtual bool readRows(int32_t y0, int32_t count, uint8_t* pixels, size_t rowBytes, float* depth, size_t depthStride,
                        std::string& why) = 0;
  // Whether rows may be asked for in any order; otherwise they come from
  // the top down, and going back opens the file again.
  virtual bool anyOrder() const { return false; }
};

// Writes one file: rows from the top down, interleaved colour then alpha in
// the description's sample type and association; depth as floats.
class WriterBackend {
 public:
  virtual ~WriterBackend() = default;
  virtual bool open(ToutputStream& out, const TimageInfo& spec, const TwriteOptions& options, std::string& why) = 0;
  virtual bool writeRows(int32_t y0, int32_t count, const uint8_t* pixels, size_t rowBytes, const float* depth,
                         size_t depthStride, std::string& why) = 0;
  virtual bool nextFrame(const TimageInfo& spec, std::string& why);
  // Ends the file; the stream is finished by the caller.
  virtual bool close(std::string& why) = 0;
};

std::unique_ptr<ReaderBackend> makeReader(const TformatInfo& format);
std::unique_ptr<WriterBackend> makeWriter(const TformatInfo& format);

std::unique_ptr<ReaderBackend> iffReader();
std::unique_ptr<WriterBackend> iffWriter();
std::unique_ptr<ReaderBackend> sgiReader();
std::unique_ptr<WriterBackend> sgiWriter();
std::unique_ptr<ReaderBackend> psdReader();
std::unique_ptr<WriterBackend> psdWriter();
// A document into another file with its layers, sets and channels as they
// are; `why` names the file that failed.
bool copyDocument(const std::string& input, const std::string& output, std::string& why);
std::unique_ptr<ReaderBackend> pluginReader(const TformatInfo& format);
std::unique_ptr<WriterBackend> pluginWriter(const TformatInfo& format);

}  // namespace kelpio
