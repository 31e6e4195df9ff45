#include "kelpimage/io/backend.h"

namespace kelpio {

bool ReaderBackend::seekFrame(int frame, TimageInfo&, std::string& why) {
  if (frame == 0) return true;
  why = "holds one picture";
  return false;
}

bool WriterBackend::nextFrame(const TimageInfo&, std::string& why) {
  why = "the format holds one picture";
  return false;
}

std::unique_ptr<ReaderBackend> makeReader(const TformatInfo& format) {
  if (format.key == "kelp") return iffReader();
  if (format.key == "sgi") return sgiReader();
  if (format.key == "psd") return psdReader();
  return pluginReader(format);
}

std::unique_ptr<WriterBackend> makeWriter(const TformatInfo& format) {
  if (format.key == "kelp") return iffWriter();
  if (format.key == "sgi") return sgiWriter();
  if (format.key == "psd") return psdWriter();
  return pluginWriter(format);
}

}  // namespace kelpio
