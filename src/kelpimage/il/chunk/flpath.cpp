// Search paths and the work directory.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <mutex>
#include <string>

#include "kelpimage/il/chunk/fl.h"

namespace {
// The current search path belongs to the thread that set it, so opens on
// different threads never see each other's paths.
thread_local FLpath* tCurrentPath = nullptr;

// Each distinct work directory is kept once, so that a text handed out stays
// valid for callers holding it while the directory changes back and forth.
// A process that meets more than kWorkTexts distinct directories drops the
// oldest of them.
constexpr size_t kWorkTexts = 256;

struct WorkCache {
  std::mutex lock;
  std::list<std::string> texts;  // the current one last; nodes never move in memory
  uint32_t stamp = 0;
};
WorkCache& workCache() {
  static WorkCache cache;
  return cache;
}

struct DirNode {
  FLnode node;
  char text[1];
};
}  // namespace

const char* FLgetwork(uint32_t* stamp) {
  std::string dir;
  if (const char* env = KelpGetEnv("KELP_WORK"); env && *env) {
    dir = env;
  } else {
    char buf[4096];
    dir = getcwd(buf, sizeof buf) ? buf : ".";
  }
  WorkCache& c = workCache();
  std::lock_guard<std::mutex> guard(c.lock);
  if (c.texts.empty() || c.texts.back() != dir) {
    auto seen = std::find(c.texts.begin(), c.texts.end(), dir);
    if (seen != c.texts.end()) {
      c.texts.splice(c.texts.end(), c.texts, seen);
    } else {
      c.texts.push_back(dir);
      if (c.texts.size() > kWorkTexts) c.texts.pop_front();
    }
    ++c.stamp;
  }
  if (stamp) *stamp = c.stamp;
  return c.texts.back().c_str();
}

FLpath* FLbuildpath(const char* dirs) {
  auto* path = static_cast<FLpath*>(FLcalloc(sizeof(FLpath), nullptr));
  if (!path) return nullptr;
  FLinitlist(&path->dirs);
  const char* p = dirs ? dirs : "";
  while (*p) {
    const char* end = std::strchr(p, ';');
    size_t len = end ? size_t(end - p) : std::strlen(p);
    if (len > 0) {
      auto* n = static_cast<DirNode*>(FLcalloc(sizeof(DirNode) + len, nullptr));
      if (!n) break;
      std::memcpy(n->text, p, len);
      n->node.name = n->text;
      FLtailnode(&path->dirs, &n->node);
    }
    if (!end) break;
    p = end + 1;
  }
  return path;
}

void FLfreepath(FLpath* path) {
  if (!path) return;
  for (FLnode* n = path->dirs.head; n;) {
    FLnode* next = n->next;
    FLfree(n);
    n = next;
  }
  if (tCurrentPath == path) tCurrentPath = nullptr;
  FLfree(path);
}

FLpath* FLswappath(FLpath* path) {
  FLpath* old = tCurrentPath;
  tCurrentPath = path;
  return old;
}

FLpath* FLcurrentpath() { return tCurrentPath; }

namespace {
void copyOut(const std::string& s, char* out, size_t size) {
  if (!out || size == 0) return;
  size_t n = std::min(s.size(), size - 1);
  std::memcpy(out, s.data(), n);
  out[n] = 0;
}

bool existsPath(const std::string& p) { return ::access(p.c_str(), F_OK) == 0; }
}  // namespace

void FLmakepath(const char* dir, const char* name, char* out, size_t size) {
  std::string d = dir ? dir : "", n = name ? name : "";
  copyOut(d.empty() ? n : d + "/" + n, out, size);
}

bool FLfindfile(const char* name, char* found, size_t size) {
  if (!name || !*name) return false;
  if (name[0] == '/' || !tCurrentPath) {
    if (!existsPath(name)) return false;
    copyOut(name, found, size);
    return true;
  }
  for (FLnode* n = tCurrentPath->dirs.head; n; n = n->next) {
    std::string dir = n->name ? n->name : ".";
    std::string candidate = dir == "." ? std::string(name) : dir + "/" + name;
    if (existsPath(candidate)) {
      copyOut(candidate, found, size);
      return true;
    }
  }
  return false;
}

void FLgetext(const char* name, char* stem, size_t stemSize, char* bracket, size_t bracketSize) {
  std::string s = name ? name : "";
  size_t open = s.rfind('[');
  if (!s.empty() && s.back() == ']' && open != std::string::npos) {
    copyOut(s.substr(0, open), stem, stemSize);
    copyOut(s.substr(open + 1, s.size() - open - 2), bracket, bracketSize);
  } else {
    copyOut(s, stem, stemSize);
    copyOut("", bracket, bracketSize);
  }
}
