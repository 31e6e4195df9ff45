// The frame-range scan: which numbered frames of a name exist on disk.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kelpimage/il/ilinternal.h"

namespace {
// Frame numbers of the files in `dir` whose names start with `prefix`.
std::vector<float> scanFrames(const std::string& dir, const std::string& prefix, float first, float last) {
  std::vector<float> frames;
  DIR* d = opendir(dir.empty() ? "." : dir.c_str());
  if (!d) return frames;
  while (const dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
    float frame = float(std::atof(name.c_str() + prefix.size() + 1));
    if (frame >= first && frame <= last && frames.size() < 4095) frames.push_back(frame);
  }
  closedir(d);
  return frames;
}

std::vector<float> scanStem(const std::string& base, const std::string& stem, float first, float last) {
  size_t slash = stem.rfind('/');
  std::string dir = slash == std::string::npos ? "" : stem.substr(0, slash);
  std::string prefix = slash == std::string::npos ? stem : stem.substr(slash + 1);
  if (!base.empty() && base != ".") dir = dir.empty() ? base : base + "/" + dir;
  return scanFrames(dir, prefix, first, last);
}

void copyText(const std::string& s, char* out, size_t size) {
  if (!out || size == 0) return;
  size_t n = std::min(s.size(), size - 1);
  std::memcpy(out, s.data(), n);
  out[n] = 0;
}
}  // namespace

int ILrange(const char* name, ILframerange* range, char* dirOut, size_t dirSize, float* framesOut) {
  if (!name) return -1;
  if (std::strchr(name, ':')) {
    if (std::strncmp(name, "mmap:", 5) != 0) return 0;
    name += 5;
  }
  FLpath* old = FLswappath(ILgetpath());
  bool plain = FLfindfile(name, nullptr, 0);
  FLpath* path = FLswappath(old);
  if (plain) {
    char cwd[4096];
    copyText(getcwd(cwd, sizeof cwd) ? cwd : ".", dirOut, dirSize);
    return 0;
  }
  std::vector<char> stemBuf(std::strlen(name) + 1), bracketBuf(std::strlen(name) + 1);
  FLgetext(name, stemBuf.data(), stemBuf.size(), bracketBuf.data(), bracketBuf.size());
  std::string stem = stemBuf.data(), bracket = bracketBuf.data();
  if (!stem.empty() && stem.back() == '.') stem.pop_back();
  ILframerange local{0.0f, 10000000000.0f, 0.0f};
  if (!range)
    range = &local;
  else
    *range = local;
  if (!bracket.empty()) {
    size_t comma = bracket.find(',');
    if (comma == std::string::npos) return -1;
    range->first = float(std::atof(bracket.substr(0, comma).c_str()));
    std::string rest = bracket.substr(comma + 1);
    range->last = float(std::atof(rest.c_str()));
    if (size_t second = rest.find(','); second != std::string::npos)
      range->step = float(std::atoi(rest.substr(second + 1).c_str()));
    if (range->last == 0.0f) range->last = local.last;
    if (range->last < range->first) range->last = range->first;
  }

  std::vector<float> frames;
  std::string dir;
  if (!stem.empty() && stem[0] == '/') {
    frames = scanStem("", stem, range->first, range->last);
    dir.assign(1, '/');  // (assigning a literal trips a false -Wrestrict in GCC 12 at -O3)
  } else {
    for (FLnode* n = path ? path->dirs.head : nullptr; n && frames.empty(); n = n->next) {
      frames = scanStem(n->name ? n->name : ".", stem, range->first, range->last);
      dir = n->name ? n->name : ".";
    }
  }
  if (frames.empty()) return -1;
  std::sort(frames.begin(), frames.end());
  if (framesOut) std::copy(frames.begin(), frames.end(), framesOut);
  copyText(dir, dirOut, dirSize);
  range->first = frames.front();
  range->last = frames.back();
  if (range->step == 0.0f && frames.size() > 1) {
    float gap = frames[1] - frames[0];
    for (size_t i = 2; i < frames.size(); ++i) gap = std::min(gap, frames[i] - frames[i - 1]);
    range->step = gap;
  }
  return int(frames.size());
}
