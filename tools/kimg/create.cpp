// kimg create: a file of image headers with no pixels.
#include <cstring>
#include <string>

#include "commands.h"
#include "files.h"
#include "kelpimage/il/il.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "util.h"

namespace kimg {
namespace {

uint32_t parseTag(const std::string& s) {
  char t[5] = {' ', ' ', ' ', ' ', 0};
  std::memcpy(t, s.data(), s.size() < 4 ? s.size() : 4);
  return FLmaketag(t);
}

bool typeBits(std::string s, uint32_t& bits) {
  bits = 0;
  if (!s.empty() && s.back() == 'z') {
    bits |= ILT_DEPTH;
    s.pop_back();
  }
  if (s == "rgb")
    bits |= ILT_COLOR;
  else if (s == "rgba")
    bits |= ILT_COLOR | ILT_ALPHA;
  else if (s == "greya" || s == "graya")
    bits |= ILT_ALPHA;
  else if (s != "grey" && s != "gray")
    return false;
  return true;
}

}  // namespace

int create(const CreateOptions& o) {
  int w = 0, h = 0, x = 0, y = 0, num = 0, den = 0;
  uint32_t type = 0, compress = 0;
  if (!parseSize(o.size, w, h)) return usage("--size must be WxH, each from 1 to 32768: " + o.size);
  if (!parsePair(o.origin, ',', x, y)) return usage("--origin must be X,Y: " + o.origin);
  if (!parsePair(o.ratio, ':', num, den) || num < 1 || den < 1 || num > 65535 || den > 65535)
    return usage("--ratio must be N:D, each from 1 to 65535: " + o.ratio);
  if (!typeBits(o.type, type)) return usage("unknown --type " + o.type);
  compressionNumber(o.compression, compress);
  for (const std::string& field : o.fields) {
    size_t eq = field.find('=');
    if (eq == std::string::npos || eq == 0 || eq > 4) return usage("--field must be TAG=TEXT: " + field);
  }
  TformatInfo format;
  std::string why;
  if (!outputFormat(o.out, "", format, why)) return fail(o.out, why);
  if (format.key != "kelp") return fail(o.out, "create writes IFF files only");
  Output output(o.out);
  if (!output.error().empty()) return fail(o.out, output.error());

  ILimage* im = ILopen(output.path().c_str(), "w");
  if (!im) return failCode(o.out, flerrno);
  int rc = 0;
  for (int i = 0; i < o.images && !rc; ++i) {
    if (i) rc = ILnext(im);
    if (!rc) rc = ILsetsize(im, w, h);
    if (!rc) rc = ILsettype(im, int32_t(type));
    if (!rc) rc = ILsetbpp(im, o.bytes);
    if (!rc) rc = ILsetcompress(im, compress);
    if (!rc) rc = ILsetorigin(im, x, y);
    if (!rc) rc = ILsetratio(im, num, den);
    im->dpi = o.dpi;
    for (const std::string& field : o.fields) {
      size_t eq = field.find('=');
      std::string value = field.substr(eq + 1);
      if (!rc) rc = ILsetfield(im, parseTag(field.substr(0, eq)), uint32_t(value.size()), value.data());
    }
    if (!rc) rc = ILputheader(im);
  }
  int closed = ILclose(im);
  if (rc) return failCode(o.out, rc);
  return closed ? failCode(o.out, closed) : output.commit();
}

}  // namespace kimg
