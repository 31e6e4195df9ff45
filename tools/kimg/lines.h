// Pictures as streams of lines, so that any input kimg reads can go to any
// output it writes, resized on the way, without holding the whole picture.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kelpimage/il/il.h"
#include "kelpimage/base/tpixelmap.h"
#include "kelpimage/sgi/sgi.h"

namespace kimg {

// Lines in the order the file keeps them (the bottom first, or the top
// first when `topdown`), each pixel blue, green, red, alpha at `bytes` bytes
// a channel. `next` fills one line; on failure it returns false and leaves
// the reason in `error`.
struct Lines {
  int width = 0, height = 0, bytes = 1;
  bool alpha = false;
  bool topdown = false;
  std::function<bool(uint8_t* line)> next;
  std::string error;
};

// The lines of an open IFF image, through its zoom if it has one, with
// 16-bit channels in their memory places.
std::unique_ptr<Lines> iffLines(ILimage* image, bool topdown);
// The rows of an open SGI image, 1 or 2 bytes a channel as the file has them.
std::unique_ptr<Lines> sgiLines(IMAGE* image, bool topdown);
// The rows of a pixel map, 1 byte a channel.
std::unique_ptr<Lines> mapLines(const TpixelMap& map, bool alpha);
// `source` resampled to width x height through the zoom filter `filter`
// (empty for the default). Null, with the reason, when the zoom cannot be made.
std::unique_ptr<Lines> zoomedLines(std::unique_ptr<Lines> source, int width, int height, const std::string& filter,
                                   float blurX, float blurY, std::string& why);

// Writes every line as an SGI file (run-length unless `verbatim`) or an IFF
// file of the given compression. 0, or the exit status after a message
// naming `input` or `output`, whichever failed.
int writeSgi(Lines& lines, const std::string& path, bool verbatim, const std::string& input,
             const std::string& output);
int writeIff(Lines& lines, const std::string& path, uint32_t compression, int tileW, int tileH,
             const std::string& input, const std::string& output);

}  // namespace kimg
