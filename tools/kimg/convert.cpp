// kimg convert: copies IFF images into a new IFF file through the line
// reader and writer, keeping channels, depth, bytes per channel and fields.
#include <cctype>
#include <cstdio>
#include <vector>

#include "commands.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/timagefile.h"
#include "sgifiles.h"
#include "util.h"

namespace kimg {
namespace {

// Copies the attributes and fields of the image `in` stands on to `out`.
int copyHeader(ILimage* in, ILimage* out, const ConvertOptions& o, uint32_t compress, int tw, int th) {
  int32_t w = 0, h = 0;
  ILgetsize(in, &w, &h);  // the zoomed size when resizing
  int rc = ILsetsize(out, w, h);
  if (!rc) rc = ILsettype(out, int32_t(in->type));
  if (!rc) rc = ILsetbpp(out, in->bytes);
  if (!rc) rc = ILsetcompress(out, compress);
  if (!rc) rc = ILsetorigin(out, in->orgx, in->orgy);
  if (!rc) rc = ILsetratio(out, in->prnum, in->prden);
  if (!rc && tw > 0) rc = ILsetpagesize(out, tw, th);
  out->dpi = in->dpi > 0.0f ? in->dpi : 72.0f;
  // Fields go over in the order they were written, so that they are written alike.
  std::vector<ILfield*> fields;
  for (FLnode* n = in->fields.head; n; n = n->next)
    if (n->type != IL_DPI) fields.push_back(reinterpret_cast<ILfield*>(n));
  for (auto it = fields.begin(); it != fields.end() && !rc; ++it)
    rc = ILsetfield(out, (*it)->node.type, (*it)->length, (*it)->value);
  ILctrl(out, ILC_TOPDOWN, o.topdown);
  return rc;
}

int copyPixels(ILimage* in, ILimage* out) {
  bool deep = in->bytes == 2;
  int32_t w = 0, h = 0;
  ILgetsize(in, &w, &h);
  std::vector<uint8_t> line(size_t(w) * 4 * (deep ? 2 : 1));
  std::vector<float> z(static_cast<size_t>(w));
  bool depth = in->type & ILT_DEPTH;
  for (int32_t y = 0; y < h; ++y) {
    if (int rc = ILreadline(in, line.data(), depth ? z.data() : nullptr)) return rc;
    if (int rc = ILwriteline(out, line.data(), depth ? z.data() : nullptr)) return rc;
  }
  return 0;
}

// Output format by --format, else by the output's extension.
std::string outputFormat(const ConvertOptions& o) {
  if (!o.format.empty()) return o.format;
  size_t dot = o.out.rfind('.');
  std::string ext = dot == std::string::npos ? "" : o.out.substr(dot + 1);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  return (ext == "sgi" || ext == "rgb" || ext == "rgba" || ext == "bw") ? "sgi" : "iff";
}

// Any picture the front door reads, as 8-bit pixels, into IFF or SGI.
int convertThroughFrontDoor(const ConvertOptions& o, const std::string& format, uint32_t compress, int rw, int rh) {
  TimageFile in;
  if (in.identifyAndOpen(Tstring(o.in.c_str())) != 0) return fail(o.in, "cannot be read (neither IFF nor SGI?)");
  TpixelMap map;
  if (rw > 0) map.setSize(rw, rh);
  if (in.readPixelMap(map) != 0) return fail(o.in, "the pixels cannot be read");
  // SGI pictures come at their own size: resample here.
  if (rw > 0 && (map.width() != rw || map.height() != rh) && !map.zoom(TportRect(0, 0, int16_t(rw), int16_t(rh))))
    return fail(o.in, "cannot be resized");
  bool alpha = in.alpha();
  in.close();
  if (format == "sgi") return writeSgiFromMap(map, alpha, o.out, compress != 0);
  TimageFile out;
  if (out.create(Tstring(o.out.c_str()), uint16_t(map.width()), uint16_t(map.height()),
                 TiffImageFile::TfileCompression(compress), nullptr) != 0)
    return failCode(o.out, flerrno);
  if (!alpha) out.setType(1);
  int rc = out.writePixelMap(map);
  int closed = out.close();
  return (rc || closed) ? fail(o.out, "cannot be written") : 0;
}
}  // namespace

int convert(const ConvertOptions& o) {
  int tw = 0, th = 0;
  uint32_t compress = 0;
  if (!o.tile.empty() && !parsePair(o.tile, 'x', tw, th)) return fail(o.out, "tile must be WxH");
  int rw = 0, rh = 0;
  float bx = 0.0f, by = 0.0f;
  if (!o.resize.empty() && (!parsePair(o.resize, 'x', rw, rh) || rw < 1 || rh < 1))
    return fail(o.out, "resize must be WxH");
  if (!o.blur.empty() && std::sscanf(o.blur.c_str(), "%f,%f", &bx, &by) != 2) return fail(o.out, "blur must be X,Y");
  if ((!o.filter.empty() || !o.blur.empty()) && o.resize.empty()) return fail(o.out, "--filter and --blur go with --resize");
  if (!o.compression.empty() && !compressionNumber(o.compression, compress))
    return fail(o.out, "unknown compression " + o.compression);
  std::string format = outputFormat(o);
  if (format != "iff" && format != "sgi") return fail(o.out, "unknown format " + format + " (iff or sgi)");
  if (TimageFile().getImageType(Tstring(o.in.c_str())) != "kelp")
    return convertThroughFrontDoor(o, format, o.compression.empty() ? 1 : compress, rw, rh);
  ILimage* in = ILopen(o.in.c_str(), "r");
  if (!in) return failCode(o.in, flerrno);
  if (format == "sgi") {
    int rc = ILgetheader(in) ? 0 : flerrno;
    if (!rc && in->bytes == 2) rc = ILsetbpp(in, 2);
    if (!rc && rw > 0) rc = ILsetzoom(in, o.filter.empty() ? nullptr : o.filter.c_str(), rw, rh, bx, by, 0.5f, 0.5f);
    if (!rc) rc = writeSgiFromIff(in, o.out, o.compression.empty() || compress != 0);
    else rc = failCode(o.in, rc);
    ILclose(in);
    return rc;
  }
  ILimage* out = ILopen(o.out.c_str(), "w");
  if (!out) {
    ILclose(in);
    return failCode(o.out, flerrno);
  }
  int rc = 0;
  std::string where = o.in;
  for (int index = 0; !rc; ++index) {
    if (index > 0 && ILnext(in) != 0) break;
    if (index > 0 && (rc = ILnext(out)) != 0) {
      where = o.out;
      break;
    }
    if (!ILgetheader(in)) {
      rc = flerrno;
      break;
    }
    if (in->bytes == 4) {
      ILclose(in);
      ILclose(out);
      return fail(o.in, "images of four bytes per channel (float) cannot be written");
    }
    ILctrl(in, ILC_TOPDOWN, o.topdown);
    if (in->bytes == 2 && (rc = ILsetbpp(in, 2)) != 0) break;
    if (rw > 0 && (rc = ILsetzoom(in, o.filter.empty() ? nullptr : o.filter.c_str(), rw, rh, bx, by, 0.5f, 0.5f)) != 0)
      break;
    if ((rc = copyHeader(in, out, o, o.compression.empty() ? in->compress : compress, tw, th)) != 0) {
      where = o.out;
      break;
    }
    rc = copyPixels(in, out);
  }
  ILclose(in);
  int closed = ILclose(out);
  if (rc) return failCode(where, rc);
  return closed ? failCode(o.out, closed) : 0;
}

}  // namespace kimg
