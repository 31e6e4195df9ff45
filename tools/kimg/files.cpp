#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "util.h"

namespace kimg {
namespace {

bool isPipeName(const std::string& name) { return name.rfind("pipe:", 0) == 0; }

// Copies everything from the descriptor `from` to the stream `to`; false on
// a read or write error, with errno saying why.
bool copyInto(int from, FILE* to) {
  char buffer[1 << 16];
  for (;;) {
    ssize_t n = ::read(from, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    if (std::fwrite(buffer, 1, size_t(n), to) != size_t(n)) return false;
  }
  return std::fflush(to) == 0 && !std::ferror(to);
}

// Copies everything from the stream `from` to the descriptor `to`.
bool copyFrom(FILE* from, int to) {
  char buffer[1 << 16];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, from)) > 0)
    for (size_t done = 0; done < n;) {
      ssize_t w = ::write(to, buffer + done, n - done);
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) return false;
      done += size_t(w);
    }
  return !std::ferror(from);
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

Input::Input(const std::string& name) : fName(name), fPath(name) {
  if (name == "-" || isPipeName(name)) {
    copyOnce(isPipeName(name));
    return;
  }
  struct stat st;
  if (::stat(name.c_str(), &st) != 0)
    fError = std::strerror(errno);
  else if (S_ISDIR(st.st_mode))
    fError = std::strerror(EISDIR);
  else if (::access(name.c_str(), R_OK) != 0)
    fError = std::strerror(errno);
  else if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
    copyOnce(false);  // a stream: it is read once
}

void Input::copyOnce(bool command) {
  fScratch = std::make_unique<TscratchFile>();
  if (!fScratch->isOpen()) {
    fError = fScratch->error();
    return;
  }
  fPath = fScratch->path();
  FILE* from = command ? popen(fName.substr(5).c_str(), "r") : fName == "-" ? stdin : std::fopen(fName.c_str(), "rb");
  if (!from) {
    fError = std::strerror(errno);
    return;
  }
  if (!copyFrom(from, fScratch->fd())) fError = std::string("cannot be read to its end: ") + std::strerror(errno);
  if (command) {
    int status = pclose(from);
    if (fError.empty() && status != 0) fError = describeStatus(status);
  } else if (from != stdin) {
    std::fclose(from);
  }
}

Output::Output(const std::string& name, Mode mode) : fName(name) {
  if (name == "-" || isPipeName(name)) {
    fScratch = std::make_unique<TscratchFile>();
    if (fScratch->isOpen())
      fPath = fScratch->path();
    else
      fError = fScratch->error();
    return;
  }
  if (mode == kLibrary) {
    struct stat st;
    if (::stat(name.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) fError = std::strerror(EISDIR);
    fLibrary = true;
    fPath = name;
    return;
  }
  if (fFile.open(name, mode == kNamed ? TatomicFile::kNamed : 0)) {
    fPath = fFile.path();
  } else {
    fError = fFile.reason();  // kimg's message puts the name first
  }
}

int Output::commit() {
  if (fLibrary) return 0;
  if (!fScratch) {
    if (fFile.commit()) return 0;
    return fail(fName, fFile.reason());
  }
  if (::lseek(fScratch->fd(), 0, SEEK_SET) != 0) return fail(fName, std::strerror(errno));
  FILE* to = fName == "-" ? stdout : popen(fName.substr(5).c_str(), "w");
  if (!to) return fail(fName, std::strerror(errno));
  bool ok = copyInto(fScratch->fd(), to);
  std::string why = ok ? "" : std::strerror(errno);
  if (to != stdout) {
    int status = pclose(to);
    if (ok && status != 0) {
      ok = false;
      why = describeStatus(status);
    }
  }
  fScratch.reset();
  return ok ? 0 : fail(fName == "-" ? "standard output" : fName, "cannot be written: " + why);
}

int finishStandardOutput(bool quiet) {
  errno = 0;
  bool ok = std::fflush(stdout) == 0 && !std::ferror(stdout);
  int why = errno;
  if (std::fclose(stdout) != 0 && ok) {
    ok = false;
    why = errno;
  }
  if (ok) return 0;
  if (!quiet) std::fprintf(stderr, "kimg: standard output: %s\n", why ? std::strerror(why) : "cannot be written");
  return kFailed;
}

}  // namespace kimg
