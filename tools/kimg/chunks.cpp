// kimg chunks: the chunk tree of a file with offsets and sizes.
#include <cstdio>
#include <string>

#include "commands.h"
#include "kelpimage/il/il.h"
#include "util.h"

namespace kimg {
namespace {

// Prints the items of the current group, one line each, groups indented.
int walk(FLfile* f, int depth) {
  for (;;) {
    uint32_t tag = 0, size = 0;
    int rc = FLbgnget(f, &tag, &size);
    uint64_t at = FLtell(f);
    std::string indent(size_t(depth) * 2, ' ');
    if (rc == FL_GROUP) {
      uint32_t form = 0;
      if (int r = FLbgnrgroup(f, nullptr, &form)) return r;
      std::printf("%10llu  %s%s %s  size %u\n", static_cast<unsigned long long>(at - 12), indent.c_str(),
                  tagText(tag).c_str(), tagText(form).c_str(), size);
      if (int r = walk(f, depth + 1)) return r;
      FLendrgroup(f);
      continue;
    }
    if (rc != 0) return flerrno;
    std::printf("%10llu  %s%s  size %u\n", static_cast<unsigned long long>(at - 8), indent.c_str(),
                tagText(tag).c_str(), size);
    FLendget(f);
  }
}

}  // namespace

int chunks(const std::string& file) {
  FLfile* f = FLsopen(file.c_str(), "r", 0);
  if (!f) return failCode(file, flerrno);
  flerrno = 0;
  int rc = walk(f, 0);
  FLclose(f);
  return rc ? failCode(file, rc) : 0;
}

}  // namespace kimg
