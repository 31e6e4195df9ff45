// kimg convert: a picture of any format the library reads into any format
// it writes, in one pass through the library's conversion; the options are
// checked before anything is read or written.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "commands.h"
#include "files.h"
#include "kelpimage/il/il.h"
#include "kelpimage/io/tconvert.h"
#include "util.h"

namespace kimg {
namespace {

// --option NAME=NUMBER, for the output format to check.
int parseOptions(const std::vector<std::string>& options, TwriteOptions& into) {
  for (const std::string& option : options) {
    size_t equals = option.find('=');
    char* end = nullptr;
    double value = equals == std::string::npos ? 0.0 : std::strtod(option.c_str() + equals + 1, &end);
    if (equals == std::string::npos || equals == 0 || end == option.c_str() + equals + 1 || *end != '\0')
      return usage("--option must be NAME=NUMBER: " + option);
    into.set(option.substr(0, equals), value);
  }
  return 0;
}

// An unknown filter, or a program that does not work, is said before any
// output is made.
int checkFilter(const std::string& filter) {
  flerrno = 0;
  ILzoom* z = ILnewzoom(filter.c_str());
  bool missing = flerrno == IL_ENOFILTER;
  std::string reason = ILfiltererror();
  ILdelzoom(z);
  if (!reason.empty()) return fail(filter, reason);
  if (missing) return usage("unknown zoom filter '" + filter + "' (kimg filters lists them)");
  return 0;
}

// The IFF and SGI settings of the command line as the output format's options.
int layoutOptions(const ConvertOptions& o, const TformatInfo& format, TwriteOptions& write) {
  if (!o.compression.empty()) {
    uint32_t number = 0;
    compressionNumber(o.compression, number);
    const TformatOption* option = format.option("Compression");
    if (!option || number > option->maximum)
      return usage("--compression " + o.compression + " is not for " + format.name + " files" +
                   (option ? " (--option Compression=N: " + option->help + ")" : ""));
    write.set("Compression", number);
  }
  bool iff = format.option("Tile Width") != nullptr;
  if ((!o.tile.empty() || o.topdown) && !iff) return usage("--tile and --topdown are for IFF files");
  if (!o.tile.empty()) {
    int w = 0, h = 0;
    if (!parseSize(o.tile, w, h, 65535)) return usage("--tile must be WxH, each from 1 to 65535: " + o.tile);
    write.set("Tile Width", w);
    write.set("Tile Height", h);
  }
  // Lines from the bottom up, as IFF files of old were written, unless asked.
  if (iff && write.get("Top Down", -1) < 0) write.set("Top Down", o.topdown ? 1 : 0);
  return 0;
}

// Checks every option before anything is read or written.
int makePlan(const ConvertOptions& o, TconvertOptions& plan) {
  TformatInfo format;
  std::string why;
  if (!outputFormat(o.out, o.format, format, why)) return fail(o.out, why);
  plan.key = format.key;
  if (int status = parseOptions(o.options, plan.write)) return status;
  if (int status = layoutOptions(o, format, plan.write)) return status;
  for (const auto& [name, value] : plan.write.values)
    if (!format.checkOption(name, value, why)) return usage(why);
  if (!o.resize.empty() && !parseSize(o.resize, plan.width, plan.height))
    return usage("--resize must be WxH, each from 1 to 32768: " + o.resize);
  if (!o.blur.empty() && std::sscanf(o.blur.c_str(), "%f,%f", &plan.blurX, &plan.blurY) != 2)
    return usage("--blur must be X,Y: " + o.blur);
  if ((!o.filter.empty() || !o.blur.empty()) && o.resize.empty()) return usage("--filter and --blur go with --resize");
  if (!o.filter.empty())
    if (int status = checkFilter(o.filter)) return status;
  plan.filter = o.filter;
  plan.frame = o.frame;
  plan.read.layer = o.layer;
  plan.read.alpha = o.alpha;
  plan.read.set = o.set;
  plan.read.lenient = o.lenient;
  return 0;
}

// The library's reason, under the file it names (the output when a write
// failed), else under the input.
int failEither(const ConvertOptions& o, const std::string& why) {
  if (why.rfind(o.out + ": ", 0) == 0) return fail(o.out, why);
  return fail(o.in, why);
}

}  // namespace

// One conversion, its options checked.
int convertPlanned(const ConvertOptions& o, const TconvertOptions& plan) {
  Input input(o.in);
  if (!input.error().empty()) return fail(o.in, input.error());
  Output output(o.out, Output::kLibrary);  // the library writes the file whole itself
  if (!output.error().empty()) return fail(o.out, output.error());
  std::string error, warnings;
  if (!TconvertImage(input.path(), output.path(), plan, error, &warnings)) {
    // The library names the paths it was given; the user named others.
    for (auto [path, name] : {std::pair{input.path(), o.in}, std::pair{output.path(), o.out}})
      if (path != name && error.rfind(path + ": ", 0) == 0) error = name + error.substr(path.size());
    return failEither(o, error);
  }
  for (size_t at = 0; at < warnings.size();) {
    size_t end = warnings.find('\n', at);
    if (end == std::string::npos) end = warnings.size();
    if (!o.quiet) std::fprintf(stderr, "kimg: %s: %s\n", o.out.c_str(), warnings.substr(at, end - at).c_str());
    at = end + 1;
  }
  return output.commit();
}

int convert(const ConvertOptions& o) {
  TconvertOptions plan;
  if (int status = makePlan(o, plan)) return status;
  return convertPlanned(o, plan);
}

int prepareConvert(const ConvertOptions& o, int threads, FrameConverter& run) {
  TconvertOptions plan;
  if (int status = makePlan(o, plan)) return status;
  plan.threads = threads;
  run = [o, plan](const std::string& in, const std::string& out) {
    ConvertOptions one = o;
    one.in = in;
    one.out = out;
    return convertPlanned(one, plan);
  };
  return 0;
}

}  // namespace kimg
