#include "kelpimage/naming/tprojectmgr.h"

#include <sys/stat.h>

#include <mutex>

#include "kelpimage/il/chunk/fl.h"

namespace {

struct Folders {
  std::mutex lock;
  std::vector<std::string> list;
  std::string output;
};
Folders& folders() {
  static Folders all;
  return all;
}

bool isFile(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

TprojectMgrBase* TprojectMgrBase::theProjectMgr = nullptr;

TprojectMgrBase::~TprojectMgrBase() = default;

Tstring TprojectMgrBase::projectRoot() const { return Tstring(); }

Tstring TprojectMgrBase::directoryOf(TfileObjectTypeName::Trule, TfileObjectTypeName::Tlocation) const {
  std::lock_guard<std::mutex> hold(folders().lock);
  return Tstring(folders().output.empty() ? std::string(".") : folders().output);
}

void TprojectMgrBase::setOutputDirectory(const Tstring& folder) {
  std::lock_guard<std::mutex> hold(folders().lock);
  folders().output = folder.str();
}

TprojectMgrBase& TprojectMgrBase::current() {
  static TdiskProjectMgr disk;
  return theProjectMgr ? *theProjectMgr : disk;
}

bool TdiskProjectMgr::findFile(const Tstring& name, TfileObjectTypeName::Trule, TfileObjectTypeName::Tlocation, int,
                               Tstring& resolved) {
  const std::string& n = name.str();
  if (n.empty()) return false;
  if (n[0] == '/') {
    if (!isFile(n)) return false;
    resolved = Tstring(n);
    return true;
  }
  std::vector<std::string> dirs = imageDirectories();
  if (dirs.empty()) {
    char found[4096];
    if (!FLfindfile(n.c_str(), found, sizeof found) || !isFile(found)) return false;
    resolved = Tstring(found);
    return true;
  }
  for (const std::string& dir : dirs) {
    std::string path = dir.empty() ? n : dir + (dir.back() == '/' ? "" : "/") + n;
    if (isFile(path)) {
      resolved = Tstring(path);
      return true;
    }
  }
  return false;
}

void TdiskProjectMgr::setImageDirectories(const std::vector<std::string>& list) {
  std::lock_guard<std::mutex> hold(folders().lock);
  folders().list = list;
}

std::vector<std::string> TdiskProjectMgr::imageDirectories() {
  std::lock_guard<std::mutex> hold(folders().lock);
  return folders().list;
}
