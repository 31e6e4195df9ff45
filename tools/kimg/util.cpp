#include "util.h"

#include <cctype>
#include <cstdio>

#include "files.h"
#include "kelpimage/il/il.h"
#include "kelpimage/image/base/terrorhandler.h"

namespace kimg {
namespace {

// Keeps the library's reports for the next message kimg prints.
struct Reporter : TerrorHandler {
  std::string last;
  void reportError(const Tstring& message) override {
    last = message.str();
    while (!last.empty() && (last.back() == '\n' || last.back() == ' ')) last.pop_back();
  }
};
Reporter gReporter;

}  // namespace

int fail(const std::string& file, const std::string& why) {
  std::fprintf(stderr, "kimg: %s: %s\n", file.c_str(), why.c_str());
  return kFailed;
}

int failCode(const std::string& file, int code) { return fail(file, FLstrerror(code)); }

int usage(const std::string& why) {
  std::fprintf(stderr, "kimg: %s\nRun 'kimg --help' or 'kimg COMMAND --help' for the usage.\n", why.c_str());
  return kUsage;
}

void installReporter() { theErrorHandler = &gReporter; }

std::string takeReport(const std::string& fallback) {
  std::string text = gReporter.last.empty() ? fallback : gReporter.last;
  gReporter.last.clear();
  return text;
}

bool compressionNumber(const std::string& name, uint32_t& number) {
  static const char* const names[] = {"none", "rle", "qrl", "qr4"};
  for (uint32_t n = 0; n < 4; ++n)
    if (name == names[n]) {
      number = n;
      return true;
    }
  return false;
}

std::string compressionName(uint32_t number) {
  char name[IL_COMPNAMELEN];
  ILcodecfn pack = nullptr;
  ILfindcompressor(number, name, &pack, nullptr);
  return pack ? name : "unknown";
}

bool parsePair(const std::string& text, char separator, int& a, int& b) {
  char sep = 0;
  char rest = 0;
  return std::sscanf(text.c_str(), "%d%c%d%c", &a, &sep, &b, &rest) == 3 && sep == separator;
}

bool parseSize(const std::string& text, int& w, int& h, int most) {
  return parsePair(text, 'x', w, h) && w >= 1 && h >= 1 && w <= most && h <= most;
}

std::string tagText(uint32_t tag) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    char c = char(tag >> shift);
    s += std::isprint(static_cast<unsigned char>(c)) ? c : '?';
  }
  return s;
}

bool outputFormat(const std::string& name, const std::string& forced, std::string& format, std::string& why) {
  if (!forced.empty()) {
    format = forced;
    return true;
  }
  std::string ext = (name == "-" || name.rfind("pipe:", 0) == 0) ? "" : extensionOf(name);
  if (ext.empty() || ext == "iff") {
    format = "iff";
  } else if (ext == "sgi" || ext == "rgb" || ext == "rgba" || ext == "bw") {
    format = "sgi";
  } else {
    why = "kimg cannot write ." + ext +
          " files; it writes iff (.iff, or no extension) and sgi (.sgi, .rgb, .rgba, .bw), or as --format says";
    return false;
  }
  return true;
}

}  // namespace kimg
