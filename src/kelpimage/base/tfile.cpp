#include "kelpimage/base/tfile.h"
#include "kelpimage/base/tfilemode.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

TtemporaryDirectory theTempDirectory;

bool TfilePath::isDirectory() const {
  struct stat st;
  return ::stat(fPath.asChar(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool TfileSystemEntity::exists() const {
  struct stat st;
  return ::stat(fName.asChar(), &st) == 0;
}

Ttime TfileSystemEntity::modificationTime() const {
  Ttime t;
  struct stat st;
  if (::stat(fName.asChar(), &st) == 0) t.setTime(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  return t;
}

bool Tdirectory::makeAndSet(const Tstring& name) {
  Tstring full = fPath.isEmpty() ? name : fPath + "/" + name;
  if (::mkdir(full.asChar(), 0777) != 0 && errno != EEXIST) return false;
  if (!TfilePath(full).isDirectory()) return false;
  fPath = full;
  return true;
}

TdirIterator::TdirIterator(const Tstring& path) : fPath(path) {
  fDir = ::opendir(path.isEmpty() ? "." : path.asChar());
  fDone = fDir == nullptr;
  next();
}

TdirIterator::~TdirIterator() {
  if (fDir) ::closedir(static_cast<DIR*>(fDir));
}

void TdirIterator::next() {
  if (!fDir) {
    fDone = true;
    return;
  }
  while (const dirent* e = ::readdir(static_cast<DIR*>(fDir))) {
    Tstring name(e->d_name);
    if (name == "." || name == "..") continue;
    fEntry = name;
    struct stat st;
    Tstring full = fPath.isEmpty() ? name : fPath + "/" + name;
    fIsFile = ::stat(full.asChar(), &st) == 0 && S_ISREG(st.st_mode);
    fDone = false;
    return;
  }
  fDone = true;
  fEntry = Tstring();
  fIsFile = false;
}

Tstring TtemporaryDirectory::getFullName() const {
  const char* dir = std::getenv("TMPDIR");
  return Tstring(dir && *dir ? dir : "/tmp");
}

mode_t newFileMode() {
  mode_t mask = 022;  // when the mask cannot be read
  if (FILE* status = std::fopen("/proc/self/status", "r")) {
    char line[128];
    unsigned value = 0;
    while (std::fgets(line, sizeof line, status))
      if (std::sscanf(line, "Umask: %o", &value) == 1) mask = mode_t(value);
    std::fclose(status);
  }
  return 0666 & ~mask;
}
