#include "kelpimage/base/tstream.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// An anonymous file in memory: it has no name on any file system, and goes
// with its last descriptor.
int memoryFile(const std::string& name) {
  int fd = ::memfd_create(name.empty() ? "kelp" : name.substr(0, 200).c_str(), MFD_CLOEXEC);
  return fd;
}

std::string descriptorPath(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

bool writeAllTo(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    ssize_t w = ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    p += w;
    n -= size_t(w);
  }
  return true;
}

}  // namespace

TinputStream::~TinputStream() {
  if (fCopy >= 0) ::close(fCopy);
}

bool TinputStream::seek(int64_t) { return fail("cannot go back in a stream that is read once"); }

int64_t TinputStream::size() const { return -1; }

bool TinputStream::fail(const std::string& why) {
  fError = why;
  return false;
}

bool TinputStream::readAll(void* data, size_t size) {
  auto* p = static_cast<uint8_t*>(data);
  while (size > 0) {
    int64_t n = read(p, size);
    if (n < 0) return false;
    if (n == 0) return fail("the file ends early");
    p += n;
    size -= size_t(n);
  }
  return true;
}

bool TinputStream::readRest(std::vector<uint8_t>& bytes) {
  bytes.clear();
  int64_t known = size();
  if (known > 0 && known > tell()) bytes.reserve(size_t(known - tell()));
  uint8_t buffer[1 << 16];
  for (;;) {
    int64_t n = read(buffer, sizeof buffer);
    if (n < 0) return false;
    if (n == 0) return true;
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
}

const std::string& TinputStream::path() {
  if (fCopy >= 0 || !fError.empty()) return fPath;
  fCopy = memoryFile(fName);
  if (fCopy < 0) {
    fail(std::string("no file in memory can be made: ") + std::strerror(errno));
    return fPath;
  }
  uint8_t buffer[1 << 16];
  for (;;) {
    int64_t n = read(buffer, sizeof buffer);
    if (n < 0) return fPath;
    if (n == 0) break;
    if (!writeAllTo(fCopy, buffer, size_t(n))) {
      fail(std::string("no file in memory can be made: ") + std::strerror(errno));
      return fPath;
    }
  }
  ::lseek(fCopy, 0, SEEK_SET);
  fPath = descriptorPath(fCopy);
  return fPath;
}

TfileInput::~TfileInput() {
  if (fFd >= 0) ::close(fFd);
}

bool TfileInput::open(const std::string& path) {
  if (fFd >= 0) ::close(fFd);
  setName(path);
  fError.clear();
  fPosition = 0;
  fFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fFd < 0) return fail(std::strerror(errno));
  struct stat st;
  if (::fstat(fFd, &st) != 0) return fail(std::strerror(errno));
  if (S_ISDIR(st.st_mode)) {
    ::close(fFd);
    fFd = -1;
    return fail(std::strerror(EISDIR));
  }
  fSeekable = S_ISREG(st.st_mode) || S_ISBLK(st.st_mode);
  fSize = S_ISREG(st.st_mode) ? int64_t(st.st_size) : -1;
  fOpenedPath = path;
  return true;
}

int64_t TfileInput::read(void* data, size_t size) {
  if (fFd < 0) return fail("the file is not open"), -1;
  for (;;) {
    ssize_t n = fSeekable ? ::pread(fFd, data, size, off_t(fPosition)) : ::read(fFd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return fail(std::strerror(errno)), -1;
    fPosition += n;
    return n;
  }
}

bool TfileInput::seek(int64_t position) {
  if (!fSeekable) return TinputStream::seek(position);
  if (position < 0) return fail("a position before the start");
  fPosition = position;
  return true;
}

const std::string& TfileInput::path() {
  // A regular file opens again by its name; a FIFO is copied once.
  return fSeekable && fPosition == 0 ? fOpenedPath : TinputStream::path();
}

TmemoryInput::TmemoryInput(const void* data, size_t size, const std::string& name)
    : fData(static_cast<const uint8_t*>(data)), fSize(data ? size : 0) {
  setName(name);
}

int64_t TmemoryInput::read(void* data, size_t size) {
  size_t n = std::min(size, fSize - fPosition);
  if (n) std::memcpy(data, fData + fPosition, n);
  fPosition += n;
  return int64_t(n);
}

bool TmemoryInput::seek(int64_t position) {
  if (position < 0) return fail("a position before the start");
  fPosition = std::min(size_t(position), fSize);
  return true;
}

bool TmemoryInput::readRest(std::vector<uint8_t>& bytes) {
  bytes.assign(fData + fPosition, fData + fSize);
  fPosition = fSize;
  return true;
}

ToutputStream::~ToutputStream() {
  if (fCopy >= 0) ::close(fCopy);
}

bool ToutputStream::seek(int64_t) { return fail("a stream written once cannot go back"); }

bool ToutputStream::finish() { return sendCopy(); }

bool ToutputStream::fail(const std::string& why) {
  fError = why;
  return false;
}

const std::string& ToutputStream::path() {
  if (fCopy < 0) {
    fCopy = memoryFile(fName);
    if (fCopy < 0)
      fail(std::string("no file in memory can be made: ") + std::strerror(errno));
    else
      fPath = descriptorPath(fCopy);
  }
  return fPath;
}

bool ToutputStream::sendCopy() {
  if (fCopy < 0) return fError.empty();
  int fd = fCopy;
  fCopy = -1;
  fPath.clear();
  bool ok = ::lseek(fd, 0, SEEK_SET) == 0;
  uint8_t buffer[1 << 16];
  while (ok) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    ok = write(buffer, size_t(n));
  }
  ::close(fd);
  return ok;
}

TfileOutput::TfileOutput(const std::string& path, bool named) {
  setName(path);
  if (!fFile.open(path, named ? TatomicFile::kNamed : 0)) fail(fFile.reason());
}

TfileOutput::~TfileOutput() = default;

bool TfileOutput::write(const void* data, size_t size) {
  if (!fFile.isOpen()) return fail(fError.empty() ? "the file is not open" : fError);
  auto* p = static_cast<const uint8_t*>(data);
  while (size > 0) {
    ssize_t n = fFile.direct() ? ::write(fFile.fd(), p, size) : ::pwrite(fFile.fd(), p, size, off_t(fPosition));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return fail(std::string("cannot be written: ") + std::strerror(n < 0 ? errno : EIO));
    p += n;
    size -= size_t(n);
    fPosition += n;
  }
  fEnd = std::max(fEnd, fPosition);
  return true;
}

bool TfileOutput::seek(int64_t position) {
  if (!canSeek()) return ToutputStream::seek(position);
  fPosition = position;
  return true;
}

bool TfileOutput::finish() {
  if (!fError.empty()) {
    fFile.abandon();
    return false;
  }
  if (fFile.commit()) return true;
  return fail(fFile.reason());
}

bool TmemoryOutput::write(const void* data, size_t size) {
  if (fPosition + size > fBytes.size()) fBytes.resize(fPosition + size);
  std::memcpy(fBytes.data() + fPosition, data, size);
  fPosition += size;
  return true;
}

bool TmemoryOutput::seek(int64_t position) {
  if (position < 0) return fail("a position before the start");
  fPosition = size_t(position);
  return true;
}

TplainFileOutput::TplainFileOutput(const std::string& path) : fPath(path) {
  setName(path);
  fFd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fFd < 0) {
    fail(std::string("cannot be written: ") + std::strerror(errno));
    return;
  }
  struct stat st;
  fSeekable = ::fstat(fFd, &st) == 0 && S_ISREG(st.st_mode);
}

TplainFileOutput::~TplainFileOutput() {
  if (fFd >= 0) ::close(fFd);
}

bool TplainFileOutput::write(const void* data, size_t size) {
  if (fFd < 0) return false;
  auto* p = static_cast<const uint8_t*>(data);
  while (size > 0) {
    ssize_t n = fSeekable ? ::pwrite(fFd, p, size, off_t(fPosition)) : ::write(fFd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return fail(std::string("cannot be written: ") + std::strerror(n < 0 ? errno : EIO));
    p += n;
    size -= size_t(n);
    fPosition += n;
  }
  fEnd = std::max(fEnd, fPosition);
  return true;
}

bool TplainFileOutput::seek(int64_t position) {
  if (!fSeekable) return ToutputStream::seek(position);
  fPosition = position;
  return true;
}

bool TplainFileOutput::finish() {
  if (fFd < 0) return false;
  int fd = fFd;
  fFd = -1;
  if (::close(fd) != 0) return fail(std::string("cannot be written: ") + std::strerror(errno));
  return fError.empty();
}
