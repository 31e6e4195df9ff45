#include "lines.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "util.h"

namespace kimg {

std::unique_ptr<Lines> iffLines(ILimage* image, bool topdown) {
  auto lines = std::make_unique<Lines>();
  int32_t w = 0, h = 0;
  ILgetsize(image, &w, &h);  // the zoomed size when resizing
  lines->width = w;
  lines->height = h;
  lines->bytes = image->bytes == 2 ? 2 : 1;
  lines->alpha = image->type & ILT_ALPHA;
  lines->topdown = topdown;
  Lines* self = lines.get();
  lines->next = [image, self](uint8_t* line) {
    if (int rc = ILreadline(image, line, nullptr)) {
      self->error = FLstrerror(rc);
      return false;
    }
    if (ILzoomswapped(image->zoom)) ILswappairs16(line, self->width);
    return true;
  };
  return lines;
}

namespace {
// Where SGI channel c of a picture of z channels goes among blue, green,
// red, alpha: grey pictures have one channel, or two with alpha; colour
// pictures red, green, blue and maybe alpha.
std::vector<int> memoryPlaces(unsigned z, unsigned c) {
  if (z <= 2) return c == 0 ? std::vector<int>{0, 1, 2} : std::vector<int>{3};
  return c < 3 ? std::vector<int>{int(2 - c)} : std::vector<int>{3};
}

void put(uint8_t* line, size_t at, int bytes, uint16_t value) {
  if (bytes == 2) std::memcpy(line + at * 2, &value, 2);
  else line[at] = uint8_t(value);
}
}  // namespace

std::unique_ptr<Lines> sgiLines(IMAGE* image, bool topdown) {
  auto lines = std::make_unique<Lines>();
  lines->width = image->xsize;
  lines->height = image->ysize;
  lines->bytes = (image->type & 0xFF) == 2 ? 2 : 1;
  lines->alpha = image->zsize == 2 || image->zsize >= 4;
  lines->topdown = topdown;
  Lines* self = lines.get();
  auto row = std::make_shared<std::vector<uint16_t>>(size_t(image->xsize) + 1);
  auto next = std::make_shared<unsigned>(0);
  lines->next = [image, self, row, next](uint8_t* line) {
    unsigned w = image->xsize, channels = std::min<unsigned>(image->zsize, 4);
    unsigned y = self->topdown ? image->ysize - 1 - *next : *next;
    ++*next;
    uint16_t full = self->bytes == 2 ? 65535 : 255;
    for (size_t x = 0; x < w; ++x) put(line, x * 4 + 3, self->bytes, full);  // opaque unless the file says
    for (unsigned c = 0; c < channels; ++c) {
      if (getrow(image, row->data(), y, c) != int(w)) {
        self->error = takeReport("a row cannot be read");
        return false;
      }
      for (int m : memoryPlaces(image->zsize, c))
        for (size_t x = 0; x < w; ++x) put(line, x * 4 + size_t(m), self->bytes, (*row)[x]);
    }
    return true;
  };
  return lines;
}

std::unique_ptr<Lines> mapLines(const TpixelMap& map, bool alpha) {
  auto lines = std::make_unique<Lines>();
  lines->width = map.width();
  lines->height = map.height();
  lines->alpha = alpha;
  auto y = std::make_shared<int>(0);
  const TpixelMap* source = &map;
  lines->next = [source, y](uint8_t* line) {
    std::memcpy(line, source->pixelPointer(0, (*y)++), size_t(source->width()) * 4);
    return true;
  };
  return lines;
}

namespace {
// Feeds a zoom from a Lines source.
struct ZoomFeed {
  std::unique_ptr<Lines> source;
  std::vector<uint8_t> line;
  std::string error;
  static int next(void* arg, uint8_t** color, float** depth) {
    auto* feed = static_cast<ZoomFeed*>(arg);
    if (depth) *depth = nullptr;
    if (!feed->source->next(feed->line.data())) {
      feed->error = feed->source->error;
      return FL_EFIT;
    }
    if (color) *color = feed->line.data();
    return 0;
  }
};
}  // namespace

std::unique_ptr<Lines> zoomedLines(std::unique_ptr<Lines> source, int width, int height, const std::string& filter,
                                   float blurX, float blurY, std::string& why) {
  auto feed = std::make_shared<ZoomFeed>();
  feed->line.resize(size_t(source->width) * 4 * size_t(source->bytes));
  int sw = source->width, sh = source->height, bytes = source->bytes;
  feed->source = std::move(source);
  std::shared_ptr<ILzoom> zoom(ILnewzoom(filter.empty() ? nullptr : filter.c_str()), ILdelzoom);
  ILsetzoomblur(zoom.get(), blurX, blurY);
  int mode = bytes == 2 ? 3 : 0;
  if (ILbindzoom(zoom.get(), feed.get(), ZoomFeed::next, mode, width, height, sw, sh) > 1) {
    why = FLstrerror(flerrno);
    return nullptr;
  }
  auto lines = std::make_unique<Lines>();
  lines->width = width;
  lines->height = height;
  lines->bytes = bytes;
  lines->alpha = feed->source->alpha;
  lines->topdown = feed->source->topdown;
  Lines* self = lines.get();
  lines->next = [zoom, feed, self](uint8_t* line) {
    if (int rc = ILreadzoom(zoom.get(), line, nullptr)) {
      self->error = feed->error.empty() ? FLstrerror(rc) : feed->error;
      return false;
    }
    if (ILzoomswapped(zoom.get())) ILswappairs16(line, self->width);
    return true;
  };
  return lines;
}

int writeSgi(Lines& lines, const std::string& path, bool verbatim, const std::string& input,
             const std::string& output) {
  unsigned channels = lines.alpha ? 4 : 3, w = unsigned(lines.width), h = unsigned(lines.height);
  unsigned type = (verbatim ? SGI_VERBATIM : SGI_RLE) | unsigned(lines.bytes);
  IMAGE* sgi = iopen(path.c_str(), "w", type, 3, w, h, channels);
  if (!sgi) return fail(output, takeReport("cannot be created"));
  std::vector<uint8_t> line(size_t(w) * 4 * size_t(lines.bytes));
  std::vector<uint16_t> row(w);
  int status = 0;
  for (unsigned i = 0; i < h && !status; ++i) {
    if (!lines.next(line.data())) {
      status = fail(input, lines.error);
      break;
    }
    unsigned y = lines.topdown ? h - 1 - i : i;
    for (unsigned c = 0; c < channels && !status; ++c) {
      // Memory pixels are blue, green, red, alpha; SGI channels red, green, blue, alpha.
      unsigned from = c < 3 ? 2 - c : 3;
      for (unsigned x = 0; x < w; ++x) {
        size_t at = size_t(x) * 4 + from;
        row[x] = lines.bytes == 2 ? reinterpret_cast<const uint16_t*>(line.data())[at] : line[at];
      }
      if (putrow(sgi, row.data(), y, c) != int(w)) status = fail(output, takeReport("a row cannot be written"));
    }
  }
  if (iclose(sgi) != 0 && !status) status = fail(output, takeReport("cannot be written"));
  return status;
}

int writeIff(Lines& lines, const std::string& path, uint32_t compression, int tileW, int tileH,
             const std::string& input, const std::string& output) {
  ILimage* out = ILopen(path.c_str(), "w");
  if (!out) return failCode(output, flerrno);
  int rc = ILsetsize(out, lines.width, lines.height);
  if (!rc) rc = ILsettype(out, int32_t(ILT_COLOR | (lines.alpha ? ILT_ALPHA : 0)));
  if (!rc) rc = ILsetbpp(out, lines.bytes);
  if (!rc) rc = ILsetcompress(out, compression);
  if (!rc && tileW > 0) rc = ILsetpagesize(out, tileW, tileH);
  ILctrl(out, ILC_TOPDOWN, lines.topdown);
  std::vector<uint8_t> line(size_t(lines.width) * 4 * size_t(lines.bytes));
  int status = 0;
  for (int y = 0; y < lines.height && !rc && !status; ++y) {
    if (!lines.next(line.data())) status = fail(input, lines.error);
    else rc = ILwriteline(out, line.data(), nullptr);
  }
  int closed = ILclose(out);
  if (status) return status;
  if (rc) return failCode(output, rc);
  return closed ? failCode(output, closed) : 0;
}

}  // namespace kimg
