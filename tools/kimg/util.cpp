#include "util.h"

#include <cctype>
#include <cstdio>
#include <vector>

#include "files.h"
#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/il/il.h"
#include "kelpimage/io/tformatcatalogue.h"

namespace kimg {
namespace {

// The library's reports of this thread, in order, for the next message it
// prints: frames converted on several threads keep their own.
thread_local std::string tLast;

struct Reporter : TerrorHandler {
  void reportError(const Tstring& message) override {
    std::string text = message.str();
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    if (text.empty()) return;
    // A reason met again (a damaged file fails row after row) is said once.
    if (tLast == text || tLast.find("; " + text) != std::string::npos || tLast.rfind(text + "; ", 0) == 0) return;
    tLast = tLast.empty() ? text : tLast + "; " + text;
  }
};
Reporter gReporter;

}  // namespace

int fail(const std::string& file, const std::string& why) {
  // The library's reasons often name the file already.
  std::string reason = why.rfind(file + ": ", 0) == 0 ? why.substr(file.size() + 2) : why;
  if (reason.empty()) reason = "the operation failed";
  std::fprintf(stderr, "kimg: %s: %s\n", file.c_str(), reason.c_str());
  return kFailed;
}

int failFrom(const std::string& file, const std::string& path, const std::string& why) {
  return fail(file, why.rfind(path + ": ", 0) == 0 ? why.substr(path.size() + 2) : why);
}

int failCode(const std::string& file, int code) { return fail(file, FLstrerror(code)); }

int usage(const std::string& why) {
  std::fprintf(stderr, "kimg: %s\nRun 'kimg --help' or 'kimg COMMAND --help' for the usage.\n", why.c_str());
  return kUsage;
}

void installReporter() { theErrorHandler = &gReporter; }

std::string takeReport(const std::string& fallback) {
  std::string text = tLast.empty() ? fallback : tLast;
  tLast.clear();
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

bool outputFormat(const std::string& name, const std::string& forced, TformatInfo& format, std::string& why) {
  if (!forced.empty()) {
    std::string key = forced == "iff" ? "kelp" : forced;
    if (TformatCatalogue::find(key, format) && format.canWrite) return true;
    why = "kimg cannot write the format '" + forced + "' (kimg formats lists those it can)";
    return false;
  }
  std::string ext = (name == "-" || name.rfind("pipe:", 0) == 0) ? "" : extensionOf(name);
  if (ext.empty()) return TformatCatalogue::find("kelp", format);
  if (TformatCatalogue::forExtension(ext, format) && format.canWrite) return true;
  std::string list;
  for (const TformatInfo& f : TformatCatalogue::formats()) {
    if (!f.canWrite) continue;
    std::string dotted;
    for (const std::string& e : f.extensions) dotted += (dotted.empty() ? "." : ", .") + e;
    list += (list.empty() ? "" : ", ") + (f.key == "kelp" ? std::string("iff") : f.key) + " (" + dotted +
            (f.key == "kelp" ? ", or no extension" : "") + ")";
  }
  why = "kimg cannot write ." + ext + " files; it writes " + list + ", or as --format says";
  return false;
}

}  // namespace kimg
