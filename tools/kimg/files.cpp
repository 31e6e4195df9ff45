#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "util.h"

namespace kimg {
namespace {

bool isPipeName(const std::string& name) { return name.rfind("pipe:", 0) == 0; }

std::string temporaryDirectory() {
  const char* dir = std::getenv("TMPDIR");
  return dir && *dir ? dir : "/tmp";
}

// A new empty file named after `pattern` (ending in XXXXXX), then `suffix`;
// empty on failure.
std::string makeTemporary(std::string pattern, std::string& error, const std::string& suffix = {}) {
  pattern += suffix;
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  int fd = mkstemps(name.data(), int(suffix.size()));
  if (fd < 0) {
    error = std::strerror(errno);
    return {};
  }
  // A file kimg makes gets the permissions any new file would get.
  mode_t mask = umask(0);
  umask(mask);
  fchmod(fd, 0666 & ~mask);
  ::close(fd);
  return name.data();
}

// Copies everything from `from` to `to`; false on a read or write error.
bool copyStream(FILE* from, FILE* to) {
  char buffer[1 << 16];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, from)) > 0)
    if (std::fwrite(buffer, 1, n, to) != n) return false;
  return !std::ferror(from) && std::fflush(to) == 0 && !std::ferror(to);
}

std::string describeStatus(int status) {
  if (status == -1) return std::strerror(errno);
  if (WIFEXITED(status)) return "the command exited with status " + std::to_string(WEXITSTATUS(status));
  return "the command was ended by signal " + std::to_string(WTERMSIG(status));
}

}  // namespace

std::string extensionOf(const std::string& name) {
  size_t slash = name.rfind('/');
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) || dot + 1 == name.size()) return {};
  std::string ext = name.substr(dot + 1);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

Scratch::Scratch() { fPath = makeTemporary(temporaryDirectory() + "/kimg-XXXXXX", fError); }

Scratch::~Scratch() {
  if (!fPath.empty()) ::unlink(fPath.c_str());
}

Input::Input(const std::string& name) : fName(name), fPath(name) {
  if (name != "-" && !isPipeName(name)) {
    struct stat st;
    if (::stat(name.c_str(), &st) != 0) fError = std::strerror(errno);
    else if (S_ISDIR(st.st_mode)) fError = std::strerror(EISDIR);
    else if (::access(name.c_str(), R_OK) != 0) fError = std::strerror(errno);
    return;
  }
  fTemp = makeTemporary(temporaryDirectory() + "/kimg-in-XXXXXX", fError);
  if (fTemp.empty()) return;
  fPath = fTemp;
  FILE* to = std::fopen(fTemp.c_str(), "wb");
  FILE* from = name == "-" ? stdin : popen(name.substr(5).c_str(), "r");
  if (!to || !from) {
    fError = std::strerror(errno);
  } else if (!copyStream(from, to)) {
    fError = "cannot be read to its end";
  }
  if (from && from != stdin) {
    int status = pclose(from);
    if (fError.empty() && status != 0) fError = describeStatus(status);
  }
  if (to && std::fclose(to) != 0 && fError.empty()) fError = std::strerror(errno);
}

Input::~Input() {
  if (!fTemp.empty()) ::unlink(fTemp.c_str());
}

Output::Output(const std::string& name) : fName(name) {
  if (name == "-" || isPipeName(name)) {
    fTemp = makeTemporary(temporaryDirectory() + "/kimg-out-XXXXXX", fError);
    return;
  }
  struct stat st;
  if (::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    fError = std::strerror(EISDIR);
    return;
  }
  if (::stat(name.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    // A device or a fifo is written as it is: it cannot be replaced, and
    // what reaches it cannot be taken back anyway.
    fTemp = name;
    fDirect = true;
    return;
  }
  // The temporary file lies in the target's own folder, so that the rename
  // that puts it in place never crosses file systems.
  size_t slash = name.rfind('/');
  std::string dir = slash == std::string::npos ? std::string("./") : name.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
  // It keeps the target's extension, which tells some formats their variant.
  size_t dot = base.rfind('.');
  std::string extension = dot == std::string::npos || dot == 0 ? std::string() : base.substr(dot);
  fTemp = makeTemporary(dir + "." + base + ".kimg-XXXXXX", fError, extension);
}

Output::~Output() {
  if (!fDone && !fDirect && !fTemp.empty()) ::unlink(fTemp.c_str());
}

int Output::commit() {
  if (fDone || fDirect) return 0;
  if (fName == "-" || isPipeName(fName)) {
    FILE* from = std::fopen(fTemp.c_str(), "rb");
    if (!from) return fail(fName, std::strerror(errno));
    FILE* to = fName == "-" ? stdout : popen(fName.substr(5).c_str(), "w");
    if (!to) {
      std::fclose(from);
      return fail(fName, std::strerror(errno));
    }
    bool ok = copyStream(from, to);
    std::string why = ok ? "" : std::strerror(errno);
    std::fclose(from);
    if (to != stdout) {
      int status = pclose(to);
      if (ok && status != 0) {
        ok = false;
        why = describeStatus(status);
      }
    }
    if (!ok) return fail(fName, "cannot be written: " + why);
    ::unlink(fTemp.c_str());
  } else if (std::rename(fTemp.c_str(), fName.c_str()) != 0) {
    return fail(fName, std::string("cannot be put in place: ") + std::strerror(errno));
  }
  fDone = true;
  return 0;
}

}  // namespace kimg
