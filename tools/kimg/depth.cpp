// kimg depth: the grey picture of an image's depth channel, as an IFF. The
// grey goes into all three colour channels, so that every reader sees grey.
#include <vector>

#include "commands.h"
#include "files.h"
#include "kelpimage/image/tiffimagefile.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "util.h"

namespace kimg {

int depth(const std::string& in, const std::string& out) {
  TformatInfo format;
  std::string why;
  if (!outputFormat(out, "", format, why)) return fail(out, why);
  if (format.key != "kelp") return fail(out, "depth writes IFF files only (kimg convert makes others of them)");
  Input input(in);
  if (!input.error().empty()) return fail(in, input.error());
  TiffImageFile source;
  if (!source.open(input.path().c_str(), "r")) return failCode(in, flerrno);
  if (!ILgetheader(source.image())) return failCode(in, flerrno);
  if (!(source.type() & ILT_DEPTH)) return fail(in, "the image has no depth channel");
  unsigned short w = source.width(), h = source.height();
  TpixelMap map(w, h);
  source.readZBuffer(map, w, h);
  if (flerrno != 0) return failCode(in, flerrno);  // a damaged file leaves its code
  source.close();

  Output output(out);
  if (!output.error().empty()) return fail(out, output.error());
  TiffImageFile target;
  if (!target.open(output.path().c_str(), "w")) return failCode(out, flerrno);
  int rc = target.setSize(w, h);
  if (!rc) rc = target.setType(ILT_COLOR);
  if (!rc) rc = target.save(map.pixels(), nullptr, 0);
  int closed = target.close();
  if (rc) return failCode(out, rc);
  return closed ? failCode(out, closed) : output.commit();
}

}  // namespace kimg
