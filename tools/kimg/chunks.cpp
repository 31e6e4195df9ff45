// kimg chunks: the chunk tree of a file with offsets and sizes.
#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "commands.h"
#include "files.h"
#include "kelpimage/il/il.h"
#include "util.h"

namespace kimg {
namespace {

// Prints the items of the current group, one line each, groups indented.
// Every item must end by `end`, the end of the group that holds it.
int walk(FLfile* f, int depth, uint64_t end) {
  for (bool first = true;; first = false) {
    uint32_t tag = 0, size = 0;
    int rc = FLbgnget(f, &tag, &size);
    if (rc != 0 && rc != FL_GROUP) {
      // The end of the group; at the top, a file with no group at all.
      if (depth == 0 && first) return flerrno ? flerrno : FL_ESHORT;
      return flerrno;
    }
    uint64_t at = FLtell(f);
    std::string indent(size_t(depth) * 2, ' ');
    if (depth == 0 && rc != FL_GROUP) return FL_ENOTIFF;  // the top holds groups only
    if (at + size > end + (rc == FL_GROUP ? 4 : 0)) return FL_EBADSIZE;
    if (rc == FL_GROUP) {
      uint32_t form = 0;
      if (int r = FLbgnrgroup(f, nullptr, &form)) return r;
      std::printf("%10llu  %s%s %s  size %u\n", static_cast<unsigned long long>(at - 12), indent.c_str(),
                  tagText(tag).c_str(), tagText(form).c_str(), size);
      if (int r = walk(f, depth + 1, at - 4 + size)) return r;
      FLendrgroup(f);
      continue;
    }
    std::printf("%10llu  %s%s  size %u\n", static_cast<unsigned long long>(at - 8), indent.c_str(),
                tagText(tag).c_str(), size);
    FLendget(f);
  }
}

}  // namespace

int chunks(const std::string& file) {
  Input input(file);
  if (!input.error().empty()) return fail(file, input.error());
  struct stat st;
  if (::stat(input.path().c_str(), &st) != 0) return fail(file, "cannot be read");
  FLfile* f = FLsopen(input.path().c_str(), "r", 0);
  if (!f) return failCode(file, flerrno);
  flerrno = 0;
  int rc = walk(f, 0, uint64_t(st.st_size));
  FLclose(f);
  return rc ? failCode(file, rc) : 0;
}

}  // namespace kimg
