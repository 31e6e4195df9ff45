#include "kelpimage/base/tscratchfile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "kelpimage/base/tfile.h"

TscratchFile::TscratchFile() {
  std::string folder = theTempDirectory.getFullName().str();
#ifdef O_TMPFILE
  fFd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
#endif
  if (fFd < 0) {
    // A file system without nameless files: a named one, unlinked at once.
    std::string pattern = folder + "/kelp-scratch-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    fFd = ::mkostemp(name.data(), O_CLOEXEC);
    if (fFd >= 0) ::unlink(name.data());
  }
  if (fFd < 0) {
    fError = folder + ": " + std::strerror(errno);
    return;
  }
  fPath = "/proc/self/fd/" + std::to_string(fFd);
}

TscratchFile::~TscratchFile() {
  if (fFd >= 0) ::close(fFd);
}
