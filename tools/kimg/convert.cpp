// kimg convert: IFF and SGI pictures into IFF or SGI files. IFF to IFF goes
// through the line reader and writer image by image, keeping channels,
// depth, bytes per channel, origin, ratio and fields; every other way goes
// line by line at the input's bytes per channel.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <vector>

#include "commands.h"
#include "files.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/formatgateway.h"
#include "kelpimage/plugin/plugins.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/image/timagefile.h"
#include "lines.h"
#include "psd.h"
#include "util.h"

namespace kimg {
namespace {

// A failure the library reported: under the file its reason names (the
// output when a write failed), else under `first` (the input by default).
int failEither(const ConvertOptions& o, const std::string& why, const std::string& first = {}) {
  const std::string& file = first.empty() ? o.in : first;
  if (why.rfind(o.out + ": ", 0) == 0) return fail(o.out, why);
  if (why.rfind(o.in + ": ", 0) == 0) return fail(o.in, why);
  return fail(file, why);
}

struct Plan {
  std::string format;  // "iff" or "sgi"
  uint32_t compression = 1;
  bool compressionGiven = false;
  int tileW = 0, tileH = 0;
  int resizeW = 0, resizeH = 0;
  float blurX = 0, blurY = 0;
  int image = -1;  // the one IFF image to convert, from 0; -1 for all
};

// Hands the --option settings to the output format's plug-in.
int setOptions(const std::vector<std::string>& options, const std::string& format) {
  if (options.empty()) return 0;
  if (format == "iff" || format == "sgi") return usage("--option is for the plug-in formats, not " + format);
  for (const std::string& option : options) {
    size_t equals = option.find('=');
    char* end = nullptr;
    float value = equals == std::string::npos ? 0.0f : std::strtof(option.c_str() + equals + 1, &end);
    if (equals == std::string::npos || equals == 0 || end == option.c_str() + equals + 1 || *end != '\0')
      return usage("--option must be NAME=NUMBER: " + option);
    if (ifftoanySetOption(format.c_str(), option.substr(0, equals).c_str(), value) != 0)
      return usage(takeReport("cannot set " + option));
  }
  return 0;
}

// Checks every option before anything is read or written.
int makePlan(const ConvertOptions& o, Plan& plan) {
  std::string why;
  if (!outputFormat(o.out, o.format, plan.format, why)) return fail(o.out, why);
  if (!o.tile.empty() && !parseSize(o.tile, plan.tileW, plan.tileH, 65535))
    return usage("--tile must be WxH, each from 1 to 65535: " + o.tile);
  if (!o.resize.empty() && !parseSize(o.resize, plan.resizeW, plan.resizeH))
    return usage("--resize must be WxH, each from 1 to 32768: " + o.resize);
  if (!o.blur.empty() && std::sscanf(o.blur.c_str(), "%f,%f", &plan.blurX, &plan.blurY) != 2)
    return usage("--blur must be X,Y: " + o.blur);
  if ((!o.filter.empty() || !o.blur.empty()) && o.resize.empty()) return usage("--filter and --blur go with --resize");
  if (int status = setOptions(o.options, plan.format)) return status;
  if (!o.compression.empty()) {
    compressionNumber(o.compression, plan.compression);
    plan.compressionGiven = true;
  }
  if (!o.filter.empty()) {
    // An unknown filter, or a program that does not work, is said now,
    // before any output is made.
    ILzoom* z = ILnewzoom(o.filter.c_str());
    bool missing = flerrno == IL_ENOFILTER;
    std::string reason = ILfiltererror();
    ILdelzoom(z);
    if (!reason.empty()) return fail(o.filter, reason);
    if (missing) return usage("unknown zoom filter '" + o.filter + "' (kimg filters lists them)");
  }
  return 0;
}

// Copies the attributes and fields of the image `in` stands on to `out`.
int copyHeader(ILimage* in, ILimage* out, const ConvertOptions& o, const Plan& plan) {
  int32_t w = 0, h = 0;
  ILgetsize(in, &w, &h);  // the zoomed size when resizing
  int rc = ILsetsize(out, w, h);
  if (!rc) rc = ILsettype(out, int32_t(in->type));
  if (!rc) rc = ILsetbpp(out, in->bytes);
  if (!rc) rc = ILsetcompress(out, plan.compressionGiven ? plan.compression : in->compress);
  if (!rc) rc = ILsetorigin(out, in->orgx, in->orgy);
  if (!rc) rc = ILsetratio(out, in->prnum, in->prden);
  if (!rc && plan.tileW > 0) rc = ILsetpagesize(out, plan.tileW, plan.tileH);
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

// Everything an image needs before its lines are read: its header, its
// bytes per channel in memory, its zoom.
int prepareIffImage(ILimage* in, const ConvertOptions& o, const Plan& plan) {
  if (!ILgetheader(in)) return flerrno;
  if (in->bytes == 4) return -1;
  ILctrl(in, ILC_TOPDOWN, o.topdown);
  if (in->bytes == 2)
    if (int rc = ILsetbpp(in, 2)) return rc;
  if (plan.resizeW > 0)
    return ILsetzoom(in, o.filter.empty() ? nullptr : o.filter.c_str(), plan.resizeW, plan.resizeH, plan.blurX,
                     plan.blurY, 0.5f, 0.5f);
  return 0;
}

// Steps over the images before image `index` (from 0); false when there are fewer.
bool skipImages(ILimage* in, int index) {
  for (int i = 0; i < index; ++i)
    if (ILnext(in) != 0) return false;
  return true;
}

int countIffImages(const std::string& path) {
  ILimage* in = ILopen(path.c_str(), "r");
  if (!in) return 1;
  int count = 1;
  while (ILnext(in) == 0) ++count;
  ILclose(in);
  return count;
}

// How many pictures the input holds: the images of an IFF file, the frames
// of a plug-in format that has them.
int inputFrames(const std::string& key, const std::string& path) {
  if (key == "kelp") return countIffImages(path);
  if (key == "sgi" || !formatIsMultiframe(key.c_str())) return 1;
  PxfHandle* handle = openPluginPicture(key, path);
  int frames = handle ? handle->frameCount : 1;
  if (handle) PXF_close(handle);
  return frames > 0 ? frames : 1;
}

int failPrepare(const std::string& in, int rc) {
  if (rc == -1) return fail(in, "images of four bytes per channel (float) cannot be converted");
  return failCode(in, rc);
}

// Copies the images of `in` (all, or the one the plan names) after those
// `out` already holds; `written` counts the images of `out`.
int copyImages(ILimage* in, ILimage* out, const ConvertOptions& o, const Plan& plan, int& written) {
  int status = 0, copied = 0;
  for (int index = 0; !status; ++index) {
    if (index > 0 && ILnext(in) != 0) break;
    if (plan.image >= 0 && index < plan.image) continue;
    if (written > 0)
      if (int rc = ILnext(out)) {
        status = failCode(o.out, rc);
        break;
      }
    ++written;
    ++copied;
    if (int rc = prepareIffImage(in, o, plan)) {
      status = failPrepare(o.in, rc);
      break;
    }
    if (int rc = copyHeader(in, out, o, plan)) {
      status = failCode(o.out, rc);
      break;
    }
    int32_t w = 0, h = 0;
    ILgetsize(in, &w, &h);
    bool depth = in->type & ILT_DEPTH;
    std::vector<uint8_t> line(size_t(w) * 4 * (in->bytes == 2 ? 2 : 1));
    std::vector<float> z(static_cast<size_t>(w));
    for (int32_t y = 0; y < h && !status; ++y) {
      if (int rc = ILreadline(in, line.data(), depth ? z.data() : nullptr)) status = failCode(o.in, rc);
      else if (ILzoomswapped(in->zoom)) ILswappairs16(line.data(), w);
      if (status) break;
      if (int rc = ILwriteline(out, line.data(), depth ? z.data() : nullptr)) status = failCode(o.out, rc);
    }
    if (plan.image >= 0) break;
  }
  if (!status && copied == 0) status = fail(o.in, "has no image " + std::to_string(plan.image + 1));
  return status;
}

int iffToIff(ILimage* in, const ConvertOptions& o, const Plan& plan, const std::string& path) {
  ILimage* out = ILopen(path.c_str(), "w");
  if (!out) return failCode(o.out, flerrno);
  int written = 0;
  int status = copyImages(in, out, o, plan, written);
  int closed = ILclose(out);
  if (!status && closed) status = failCode(o.out, closed);
  return status;
}

// Every frame of a plug-in input as an image of one IFF file: each frame
// through an IFF file of its own, then copied in.
int framesToIff(int frames, const ConvertOptions& o, const Plan& plan, const std::string& path,
                const std::function<int(const Plan&, const std::string&)>& into) {
  ILimage* out = ILopen(path.c_str(), "w");
  if (!out) return failCode(o.out, flerrno);
  int status = 0, written = 0;
  for (int i = 0; i < frames && !status; ++i) {
    TscratchFile one;
    Plan framePlan = plan;
    framePlan.image = i;
    status = one.error().empty() ? into(framePlan, one.path()) : fail(o.out, one.error());
    if (status) break;
    ILimage* in = ILopen(one.path().c_str(), "r");
    if (!in) {
      status = failCode(o.in, flerrno);
      break;
    }
    Plan copyPlan = plan;
    copyPlan.image = -1;
    copyPlan.resizeW = 0;  // resized already
    status = copyImages(in, out, o, copyPlan, written);
    ILclose(in);
  }
  int closed = ILclose(out);
  if (!status && closed) status = failCode(o.out, closed);
  return status;
}

int linesTo(Lines& lines, const ConvertOptions& o, const Plan& plan, const std::string& path) {
  if (plan.format == "sgi")
    return writeSgi(lines, path, plan.compressionGiven && plan.compression == 0, o.in, o.out);
  return writeIff(lines, path, plan.compression, plan.tileW, plan.tileH, o.in, o.out);
}

int fromIff(const std::string& input, const ConvertOptions& o, const Plan& plan, const std::string& path) {
  ILimage* in = ILopen(input.c_str(), "r");
  if (!in) return failCode(o.in, flerrno);
  int status = 0;
  if (plan.format == "iff") {
    status = iffToIff(in, o, plan, path);  // it finds the image the plan names itself
  } else if (!skipImages(in, plan.image)) {
    status = fail(o.in, "has no image " + std::to_string(plan.image + 1));
  } else if (int rc = prepareIffImage(in, o, plan)) {
    status = failPrepare(o.in, rc);
  } else {
    status = linesTo(*iffLines(in, o.topdown), o, plan, path);
  }
  ILclose(in);
  return status;
}

int fromSgi(const std::string& input, const ConvertOptions& o, const Plan& plan, const std::string& path) {
  IMAGE* in = iopen(input.c_str(), "r");
  if (!in) return fail(o.in, takeReport("cannot be read as an SGI picture"));
  std::unique_ptr<Lines> lines = sgiLines(in, o.topdown);
  std::string why;
  if (plan.resizeW > 0)
    lines = zoomedLines(std::move(lines), plan.resizeW, plan.resizeH, o.filter, plan.blurX, plan.blurY, why);
  int status = lines ? linesTo(*lines, o, plan, path) : fail(o.in, "cannot be resized: " + why);
  iclose(in);
  return status;
}

// A Photoshop document: its flattened image, one layer or one alpha channel.
int fromPsd(const std::string& input, const ConvertOptions& o, const Plan& plan, const std::string& path) {
  std::string why;
  std::unique_ptr<Lines> lines = psdLines(input, PsdPart{o.layer, o.alpha, o.set}, o.topdown, why);
  if (!lines) return why.empty() ? kFailed : fail(o.in, why);
  if (plan.resizeW > 0)
    lines = zoomedLines(std::move(lines), plan.resizeW, plan.resizeH, o.filter, plan.blurX, plan.blurY, why);
  return lines ? linesTo(*lines, o, plan, path) : fail(o.in, "cannot be resized: " + why);
}

// Any other picture: converted by the front door into an IFF picture of
// one byte a channel (with its depth, where the format has one), which is
// then read as any IFF picture is.
int fromFrontDoor(const std::string& input, const std::string& key, const ConvertOptions& o, const Plan& plan,
                  const std::string& path) {
  TscratchFile iff;
  if (!iff.error().empty()) return fail(o.out, iff.error());
  if (anytoiff(input.c_str(), iff.path().c_str(), key.c_str(), plan.image < 0 ? 0 : plan.image) != 0)
    return failEither(o, takeReport("cannot be read"));
  Plan whole = plan;
  whole.image = -1;
  if (!whole.compressionGiven) {
    // The front door's file is stored; the output is compressed as IFF
    // pictures are by default.
    whole.compression = 1;
    whole.compressionGiven = true;
  }
  return fromIff(iff.path(), o, whole, path);
}

}  // namespace

// One conversion, its options checked.
int convertPlanned(const ConvertOptions& o, Plan plan) {
  Input input(o.in);
  if (!input.error().empty()) return fail(o.in, input.error());
  Tstring key = TimageFile().getImageType(Tstring(input.path().c_str()));
  if (key.isEmpty()) return fail(o.in, takeReport("not a picture of a format kimg reads"));
  // The library writes plug-in formats and documents whole itself.
  Output output(o.out, plan.format != "iff" && plan.format != "sgi" ? Output::kLibrary : Output::kNameless);
  if (!output.error().empty()) return fail(o.out, output.error());
  if ((!o.layer.empty() || o.alpha >= 0 || !o.set.empty()) && key != "psd")
    return usage("--layer, --alpha and --set are for Photoshop documents");
  auto into = [&](const Plan& p, const std::string& path) {
    if (key == "psd") return fromPsd(input.path(), o, p, path);
    if (key == "kelp") return fromIff(input.path(), o, p, path);
    if (key == "sgi") return fromSgi(input.path(), o, p, path);
    return fromFrontDoor(input.path(), key.str(), o, p, path);
  };
  int frames = key == "psd" ? 1 : inputFrames(key.str(), input.path());
  if (o.frame >= frames) return fail(o.in, "has no frame " + std::to_string(o.frame) + " (frames 0 to " +
                                               std::to_string(frames - 1) + ")");
  if (o.frame >= 0) plan.image = o.frame;
  int status = 0;
  bool plain = plan.resizeW == 0 && plan.tileW == 0 && !o.topdown;
  bool part = !o.layer.empty() || o.alpha >= 0 || !o.set.empty();
  if (key == "psd" && plan.format == "psd" && plain && !part) {
    // A document to a document: its own writer keeps its layers.
    PsdOptions copy;
    copy.file = input.path();
    copy.out = output.path();
    return psdEdit(copy);
  }
  if (plan.format == "iff" && key != "kelp" && key != "sgi" && key != "psd" && !part && plain &&
      (frames == 1 || plan.image >= 0)) {
    // One frame into IFF: the conversion writes the file itself, in one pass.
    if (anytoiffCompressed(input.path().c_str(), output.path().c_str(), key.asChar(), plan.image < 0 ? 0 : plan.image,
                           plan.compressionGiven ? plan.compression : 1) != 0)
      status = failEither(o, takeReport("cannot be converted"));
  } else if (plan.format == "iff" && key != "kelp" && plan.image < 0 && frames > 1) {
    status = framesToIff(frames, o, plan, output.path(), into);
  } else if (plan.format == "iff" || plan.format == "sgi") {
    status = into(plan, output.path());
  } else {
    // A plug-in format: an IFF file first, which its plug-in then writes out;
    // every image of an IFF file becomes a frame where the format has frames.
    int images = plan.image < 0 && formatIsMultiframe(plan.format.c_str()) ? frames : 1;
    for (int i = 0; i < images && !status; ++i) {
      TscratchFile iff;
      if (!iff.error().empty()) return fail(o.out, iff.error());
      Plan iffPlan = plan;
      iffPlan.format = "iff";
      if (plan.image < 0) iffPlan.image = i;
      status = into(iffPlan, iff.path());
      if (!status && ifftoany(iff.path().c_str(), output.path().c_str(), plan.format.c_str()) != 0)
        status = failEither(o, takeReport("cannot be written as " + plan.format), o.out);
    }
    // Only this output is finished: other threads may be writing theirs.
    if (!status && ifftoanyFinish(output.path().c_str()) != 0)
      status = fail(o.out, takeReport("cannot be completed as " + plan.format));
    if (status) ifftoanyAbandon(output.path().c_str());  // the target stays as it was
  }
  return status ? status : output.commit();
}

int convert(const ConvertOptions& o) {
  Plan plan;
  if (int status = makePlan(o, plan)) return status;
  return convertPlanned(o, plan);
}

int prepareConvert(const ConvertOptions& o, FrameConverter& run) {
  Plan plan;
  if (int status = makePlan(o, plan)) return status;
  run = [o, plan](const std::string& in, const std::string& out) {
    ConvertOptions one = o;
    one.in = in;
    one.out = out;
    return convertPlanned(one, plan);
  };
  return 0;
}

}  // namespace kimg
