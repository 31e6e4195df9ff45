#include "util.h"

#include <cctype>
#include <cstdio>

#include "kelpimage/il/il.h"

namespace kimg {

int fail(const std::string& file, const std::string& why) {
  std::fprintf(stderr, "kimg: %s: %s\n", file.c_str(), why.c_str());
  return 1;
}

int failCode(const std::string& file, int code) { return fail(file, FLstrerror(code)); }

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

std::string tagText(uint32_t tag) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    char c = char(tag >> shift);
    s += std::isprint(static_cast<unsigned char>(c)) ? c : '?';
  }
  return s;
}

}  // namespace kimg
