// kimg convert: copies IFF images into a new IFF file through the line
// reader and writer, keeping channels, depth, bytes per channel and fields.
#include <cstdio>
#include <vector>

#include "commands.h"
#include "il/il.h"
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
  ILimage* in = ILopen(o.in.c_str(), "r");
  if (!in) return failCode(o.in, flerrno);
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
