#include "kelpimage/base/tatomicfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "kelpimage/base/tfilemode.h"
#include "kelpimage/base/ttemporaryfiles.h"

namespace {

std::string folderOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string extensionOf(const std::string& base) {
  size_t dot = base.rfind('.');
  return dot == std::string::npos || dot == 0 ? std::string() : base.substr(dot);
}

// A fresh name beside the target for the moment between link and rename.
std::string siblingName(const std::string& folder, const std::string& base) {
  static thread_local std::mt19937 random{std::random_device{}()};
  static const char letters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::string tail;
  for (int i = 0; i < 8; ++i) tail += letters[random() % (sizeof letters - 1)];
  return folder + "/." + base + ".kelp-" + tail;
}

// A name of an open descriptor (/dev/stdout, /dev/fd/N, /proc/self/fd/N):
// the file behind it is open already and is written as it is.
bool isDescriptorName(const std::string& path) {
  return path == "/dev/stdout" || path == "/dev/stderr" || path.rfind("/dev/fd/", 0) == 0 ||
         path.rfind("/proc/self/fd/", 0) == 0;
}

}  // namespace

std::string TatomicFile::resolveLinks(const std::string& path) {
  std::string current = path;
  for (int hops = 0; hops < 40; ++hops) {
    struct stat st;
    if (::lstat(current.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return current;
    std::vector<char> buffer(size_t(st.st_size > 0 ? st.st_size : 255) + 1);
    ssize_t n = ::readlink(current.c_str(), buffer.data(), buffer.size() - 1);
    if (n < 0) return current;
    std::string to(buffer.data(), size_t(n));
    current = to.empty() || to[0] == '/' ? to : folderOf(current) + "/" + to;
  }
  return current;
}

TatomicFile::TatomicFile(TatomicFile&& other) noexcept { *this = std::move(other); }

TatomicFile& TatomicFile::operator=(TatomicFile&& other) noexcept {
  if (this != &other) {
    abandon();
    fTarget = std::move(other.fTarget);
    fPath = std::move(other.fPath);
    fTemporary = std::move(other.fTemporary);
    fError = std::move(other.fError);
    fReason = std::move(other.fReason);
    fFd = std::exchange(other.fFd, -1);
    fDirect = other.fDirect;
    fNameless = other.fNameless;
    fHadFile = other.fHadFile;
    fOwner = other.fOwner;
    fGroup = other.fGroup;
    other.reset();
  }
  return *this;
}

bool TatomicFile::fail(const std::string& why) {
  fReason = why;
  fError = fTarget + ": " + why;
  return false;
}

void TatomicFile::reset() {
  fPath.clear();
  fTemporary.clear();
  fFd = -1;
  fDirect = fNameless = fHadFile = false;
}

bool TatomicFile::open(const std::string& target, int flags) {
  abandon();
  fError.clear();
  fReason.clear();
  fTarget = isDescriptorName(target) ? target : resolveLinks(target);
  if (fTarget.empty()) return fail("no file name");
  struct stat st;
  unsigned mode = newFileMode();
  if (::stat(fTarget.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return fail(std::string("cannot be written: ") + std::strerror(EISDIR));
    if (!S_ISREG(st.st_mode) || isDescriptorName(fTarget)) {
      // A device, a FIFO or an open descriptor cannot be replaced, and what
      // reaches it cannot be taken back: it is written as it is.
      fFd = ::open(fTarget.c_str(), O_WRONLY | O_CLOEXEC);
      if (fFd < 0) return fail(std::string("cannot be written: ") + std::strerror(errno));
      fDirect = true;
      fPath = fTarget;
      return true;
    }
    if (::access(fTarget.c_str(), W_OK) != 0) return fail(std::string("cannot be written: ") + std::strerror(errno));
    mode = st.st_mode & 07777;
    fHadFile = true;
    fOwner = st.st_uid;
    fGroup = st.st_gid;
  }
  std::string folder = folderOf(fTarget);
  if (!(flags & kNamed) && openNameless(folder, mode)) return true;
  return openNamed(folder, baseOf(fTarget), mode);
}

bool TatomicFile::openNameless(const std::string& folder, unsigned mode) {
#ifdef O_TMPFILE
  // Writers reach the file, and the link puts it in place, through /proc.
  if (::access("/proc/self/fd", X_OK) != 0) return false;
  fFd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mode);
  if (fFd < 0) return false;
  ::fchmod(fFd, mode);  // the creation mask does not narrow a kept mode
  fNameless = true;
  fPath = "/proc/self/fd/" + std::to_string(fFd);
  keepOwner();
  return true;
#else
  (void)folder, (void)mode;
  return false;
#endif
}

bool TatomicFile::openNamed(const std::string& folder, const std::string& base, unsigned mode) {
  std::string extension = extensionOf(base);
  std::string pattern = folder + "/." + base + ".kelp-XXXXXX" + extension;
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  fFd = ::mkostemps(name.data(), int(extension.size()), O_CLOEXEC);
  if (fFd < 0) return fail(std::string("cannot be written: ") + std::strerror(errno));
  ::fchmod(fFd, mode);
  fTemporary = fPath = name.data();
  TtemporaryFiles::add(fTemporary.c_str());
  keepOwner();
  return true;
}

void TatomicFile::keepOwner() {
  // Only where the process may: an ordinary user keeps the file as theirs.
  if (fHadFile && (fOwner != ::geteuid() || fGroup != ::getegid())) {
    if (::fchown(fFd, fOwner, fGroup) != 0) ::fchown(fFd, uid_t(-1), fGroup);
  }
}

bool TatomicFile::linkIntoPlace() {
  std::string folder = folderOf(fTarget), base = baseOf(fTarget);
  std::string proc = "/proc/self/fd/" + std::to_string(fFd);
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::string name = siblingName(folder, base);
    TtemporaryFiles::add(name.c_str());
    if (::linkat(AT_FDCWD, proc.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      fTemporary = name;
      return true;
    }
    int why = errno;
    TtemporaryFiles::forget(name.c_str());
    if (why != EEXIST) return fail(std::string("cannot be put in place: ") + std::strerror(why));
  }
  return fail("cannot be put in place: no free temporary name");
}

bool TatomicFile::commit() {
  if (fFd < 0) return fError.empty() ? fail("is not open") : false;
  bool ok = true;
  if (!fDirect && ::fsync(fFd) != 0) ok = fail(std::string("cannot be written: ") + std::strerror(errno));
  if (ok && fNameless) ok = linkIntoPlace();
  if (ok && !fDirect && ::rename(fTemporary.c_str(), fTarget.c_str()) != 0)
    ok = fail(std::string("cannot be put in place: ") + std::strerror(errno));
  if (::close(std::exchange(fFd, -1)) != 0 && ok && fDirect)
    ok = fail(std::string("cannot be written: ") + std::strerror(errno));
  if (ok) {
    if (!fTemporary.empty()) TtemporaryFiles::forget(fTemporary.c_str());
    reset();
    return true;
  }
  abandon();
  return false;
}

void TatomicFile::abandon() {
  if (fFd >= 0) ::close(fFd);
  if (!fTemporary.empty()) {
    ::unlink(fTemporary.c_str());
    TtemporaryFiles::forget(fTemporary.c_str());
  }
  reset();
}
