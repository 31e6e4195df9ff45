// kimg depth: the grey picture of an image's depth channel, as an IFF.
#include <vector>

#include "commands.h"
#include "kelpimage/image/tiffimagefile.h"
#include "util.h"

namespace kimg {

int depth(const std::string& in, const std::string& out) {
  TiffImageFile source;
  if (!source.open(in.c_str(), "r")) return failCode(in, flerrno);
  if (!(source.type() & ILT_DEPTH)) return fail(in, "the image has no depth channel");
  unsigned short w = source.width(), h = source.height();
  TpixelMap map(w, h);
  source.readZBuffer(map, w, h);
  source.close();

  TiffImageFile target;
  if (!target.open(out.c_str(), "w")) return failCode(out, flerrno);
  int rc = target.setSize(w, h);
  if (!rc) rc = target.setType(0);  // grey
  if (!rc) rc = target.save(map.pixels(), nullptr, 0);
  int closed = target.close();
  if (rc) return failCode(out, rc);
  return closed ? failCode(out, closed) : 0;
}

}  // namespace kimg
