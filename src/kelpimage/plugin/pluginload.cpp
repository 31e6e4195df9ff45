// Finding the plug-in files, checking that each is an image plug-in of this
// family, and starting the framework with them.
#include "kelpimage/plugin/plugins.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "kelpimage/il/chunk/fl.h"
#include "kelpimage/plugin/pxf.h"
#include "kelpimage/plugin/pxfinternal.h"

// Where the plug-ins lie, from the folder of the library itself: the same
// in the installed tree and in a build tree.
#ifndef KELP_PLUGIN_SUBDIR
#define KELP_PLUGIN_SUBDIR "kelpimage/plug-ins/image/"
#endif

namespace {

// The plug-in table: base names of plug-in files and their keys. Entries
// are never removed; the first of a name wins.
struct PluginTable {
  std::vector<std::string> names, keys;
};
PluginTable& table() {
  static PluginTable* t = new PluginTable;
  return *t;
}

std::vector<std::string> gPluginFileList;
size_t gPluginFileCursor = 0;
std::set<std::string> gOffered;  // files offered to the framework already
std::mutex gScanLock;            // one scan at a time, whoever calls

std::vector<std::string> splitPath(const char* text) {
  std::vector<std::string> dirs;
  std::string all = text ? text : "";
  size_t at = 0;
  while (at <= all.size() && !all.empty()) {
    size_t semi = all.find(';', at);
    if (semi == std::string::npos) semi = all.size();
    if (semi > at) dirs.push_back(all.substr(at, semi - at));
    at = semi + 1;
  }
  return dirs;
}

// The folder the library file itself was loaded from, with a trailing '/'.
std::string libraryDirectory() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&loadImagePlugin), &info) == 0 || !info.dli_fname) return {};
  std::string path = info.dli_fname;
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
}

// The system directory: $KELP_LOCATION/bin/plug-ins/image/, or the plug-ins'
// folder beside the library. Never the current directory: loading whatever
// files a host happens to run among would let any of them run code.
std::string systemDirectory() {
  const char* location = KelpGetEnv("KELP_LOCATION");
  if (location && *location) return std::string(location) + "/bin/plug-ins/image/";
  return libraryDirectory() + KELP_PLUGIN_SUBDIR;
}

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() > tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

const char* pluginString(void* library, const char* name) {
  auto* p = static_cast<const char* const*>(dlsym(library, name));
  return p ? *p : nullptr;
}

void* loadImagePlugin(const char* path) {
  struct stat st;
  if (!path || ::stat(path, &st) != 0) {
    pxfLoadProblem(path ? path : "(no name)", "not found");
    return nullptr;
  }
  if (S_ISDIR(st.st_mode)) {
    pxfLoadProblem(path, "is a directory");
    return nullptr;
  }
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    const char* why = dlerror();
    pxfLoadProblem(path, std::string("cannot be opened") + (why ? std::string(": ") + why : std::string()));
    return nullptr;
  }
  const char* type = pluginString(library, "type");
  const char* program = pluginString(library, "program");
  if (!type || !program || std::strcmp(type, "image") != 0 || std::strcmp(program, "Thornfell") != 0) {
    pxfLoadProblem(path, "not an image plug-in of this family (its \"type\" or \"program\" is wrong)");
    dlclose(library);
    return nullptr;
  }
  const char* key = pluginString(library, "imageKey");
  if (!key) {
    pxfLoadProblem(path, "the plug-in has no key");
    dlclose(library);
    return nullptr;
  }
  const char* slash = std::strrchr(path, '/');
  PluginTable& t = table();
  t.names.emplace_back(slash ? slash + 1 : path);
  t.keys.emplace_back(key);
  return library;  // stays loaded for the life of the process
}

const char* keyFromPluginTable(const char* pluginFileName) {
  if (!pluginFileName) return nullptr;
  PluginTable& t = table();
  for (size_t i = 0; i < t.names.size(); ++i)
    if (t.names[i] == pluginFileName) return t.keys[i].c_str();
  return nullptr;
}

int collectPluginFiles() {
  std::vector<std::string> dirs = splitPath(KelpGetEnv("PXF_PLUG_IN_PATH"));
  std::string system = systemDirectory();
  bool found = false;
  for (std::string& dir : dirs) {
    if (dir.back() != '/' && dir.back() != '\\') dir += '/';
    if (dir == system) {
      found = true;
      break;
    }
  }
  if (!found) dirs.push_back(system);
  gPluginFileList.clear();
  for (const std::string& dir : dirs) {
    DIR* d = opendir(dir.c_str());
    if (!d) {
      continue;
    }
    std::vector<std::string> names;
    while (const dirent* e = readdir(d)) {
      std::string name = e->d_name;
      if (name.empty() || name[0] == '.' || endsWith(name, ".pdb")) continue;
      names.push_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());  // the same order on every file system
    for (const std::string& name : names) {
      gPluginFileList.push_back(dir + (dir.back() == '/' ? "" : "/") + name);
    }
  }
  gPluginFileCursor = 0;
  return 0;
}

bool nextPluginFile(void** handle, char** path) {
  if (gPluginFileCursor >= gPluginFileList.size()) return false;
  *handle = nullptr;
  *path = nullptr;
  std::string& next = gPluginFileList[gPluginFileCursor++];
  // Every scan of a process lists the same files again: each is loaded (or
  // refused, with its message) the first time only.
  if (!gOffered.insert(next).second) return true;
  void* library = loadImagePlugin(next.c_str());
  if (!library) return true;
  *handle = library;
  *path = next.data();
  return true;
}

int loadAllPXFPlugins() {
  std::lock_guard<std::mutex> guard(gScanLock);
  setenv("TF_PXF_SGI_MATTE", "1", 1);
  collectPluginFiles();
  ERR_mask_s(0);
  ERR_mask_s(2);
  if (PXF_init(0, nextPluginFile) != 0) return -1;
  gPluginFileList.clear();
  return 0;
}

int formatIsMultiframe(const char* key) {
  loadAllPXFPlugins();
  PxfFormat* format = PXF_find(key);
  return format && (format->flags & PXF_MULTIFRAME) ? 1 : 0;
}

const char* pxfFileType(const char* path) {
  struct stat st;
  if (!path || ::stat(path, &st) != 0) return nullptr;
  uint8_t flag = 0;
  const char* key = PXF_get_file_type(path, 0, &flag);
  return key ? key : "__none_";
}
