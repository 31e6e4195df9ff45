// Buffered descriptors, pipes and filters.
#include "kelpimage/il/chunk/flio.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

extern char** environ;

namespace {
constexpr size_t kBufSize = 1 << 16;
constexpr size_t kFlushAt = 1 << 18;

// Writes everything; a reader that went away gives EPIPE instead of a
// SIGPIPE that would end the host process.
bool writeAll(int fd, const uint8_t* p, size_t n, bool seekable, uint64_t at) {
  sigset_t pipeSet, old;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeSet, &old);
  bool ok = true;
  while (n > 0) {
    ssize_t w = seekable ? ::pwrite(fd, p, n, off_t(at)) : ::write(fd, p, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      ok = false;
      break;
    }
    p += w;
    n -= size_t(w);
    at += uint64_t(w);
  }
  if (!ok && errno == EPIPE) {
    // Take the pending SIGPIPE so it is not delivered when the mask returns.
    timespec zero{0, 0};
    sigtimedwait(&pipeSet, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return ok;
}

bool isSeekableFd(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
}
}  // namespace

FLstream::~FLstream() { close(); }

void FLstream::adopt(int fd, bool write) {
  fFd = fd;
  fWrite = write;
  fSeekable = isSeekableFd(fd);
  fKnownSize = 0;
}

int FLstream::openFile(const std::string& path, bool write) {
  int fd = write ? ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)
                 : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return FLsysfail();
  adopt(fd, write);
  return 0;
}

int FLstream::openStdio(bool write) {
  int fd = fcntl(write ? 1 : 0, F_DUPFD_CLOEXEC, 3);
  if (fd < 0) return FLsysfail();
  adopt(fd, write);
  return 0;
}

namespace {
thread_local int tQuietChildren = 0;
}

FLquietchildren::FLquietchildren() { ++tQuietChildren; }
FLquietchildren::~FLquietchildren() { --tQuietChildren; }
bool FLquietchildren::active() { return tQuietChildren > 0; }

int FLstream::spawn(const std::string& command, int childIn, int childOut) {
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  if (childIn >= 0) posix_spawn_file_actions_adddup2(&fa, childIn, 0);
  if (childOut >= 0) posix_spawn_file_actions_adddup2(&fa, childOut, 1);
  if (FLquietchildren::active()) posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  pid_t pid;
  int rc = posix_spawn(&pid, "/bin/sh", &fa, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&fa);
  if (rc != 0) return FL_EFILTER;
  fChildren.push_back(pid);
  return 0;
}

int FLstream::openCommand(const std::string& command, bool write) {
  int p[2];
  if (pipe2(p, O_CLOEXEC) != 0) return FL_EFILTER;
  int rc = write ? spawn(command, p[0], -1) : spawn(command, -1, p[1]);
  ::close(write ? p[0] : p[1]);
  if (rc) {
    ::close(write ? p[1] : p[0]);
    return rc;
  }
  adopt(write ? p[1] : p[0], write);
  return 0;
}

int FLstream::openReadFilter(const std::string& command, std::unique_ptr<FLstream> upstream) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return FL_EFILTER;
  if (pipe2(out, O_CLOEXEC) != 0) {
    ::close(in[0]);
    ::close(in[1]);
    return FL_EFILTER;
  }
  int rc = spawn(command, in[0], out[1]);
  ::close(in[0]);
  ::close(out[1]);
  if (rc) {
    ::close(in[1]);
    ::close(out[0]);
    return rc;
  }
  adopt(out[0], false);
  fFeedFd = in[1];
  fUpstream = std::move(upstream);
  // The feeder hands the command everything the upstream still holds,
  // pushed-back bytes first, then the rest of its data.
  fFeeder = std::thread([up = fUpstream.get(), fd = fFeedFd] {
    std::vector<uint8_t> chunk(kBufSize);
    for (;;) {
      size_t n = up->read(chunk.data(), chunk.size());
      if (n == 0 || !writeAll(fd, chunk.data(), n, false, 0)) break;
    }
    ::close(fd);
  });
  return 0;
}

int FLstream::openWriteFilter(const std::string& command, std::unique_ptr<FLstream> downstream) {
  if (int rc = downstream->flush()) return rc;
  int in[2];
  if (pipe2(in, O_CLOEXEC) != 0) return FL_EFILTER;
  int rc = spawn(command, in[0], downstream->fFd);
  ::close(in[0]);
  if (rc) {
    ::close(in[1]);
    return rc;
  }
  adopt(in[1], true);
  fDownstream = std::move(downstream);
  // The command now owns the destination; our copy only has to stay valid
  // until it has started, which posix_spawn guarantees.
  ::close(fDownstream->fFd);
  fDownstream->fFd = -1;
  return 0;
}

int FLstream::reap() {
  int result = 0;
  for (pid_t pid : fChildren) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    // Only a writer cares how its command ended: a reader may have stopped
    // early on purpose, leaving the command to die of a closed pipe.
    if (fWrite && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) result = FL_EPIPE;
  }
  fChildren.clear();
  return result;
}

int FLstream::close() {
  int result = 0;
  if (fWrite && fFd >= 0 && flush()) result = FL_EWRITE;
  if (fFd >= 0) ::close(fFd);
  fFd = -1;
  if (fFeeder.joinable()) fFeeder.join();
  fFeedFd = -1;
  if (int rc = reap(); rc && !result) result = rc;
  if (fUpstream) fUpstream->close();
  fUpstream.reset();
  if (fDownstream) {
    if (int rc = fDownstream->close(); rc && !result) result = rc;
    fDownstream.reset();
  }
  if (fError && !result) result = fError;
  fRbuf.clear();
  fWbuf.clear();
  fRpos = fRlen = 0;
  return result;
}

uint64_t FLstream::remaining(bool fresh) const {
  if (!fSeekable || fWrite) return UINT64_MAX;
  // The size seen last, asked again when it no longer covers the position or
  // the caller wants it fresh: a file cut short meanwhile fails its read.
  uint64_t pos = tell();
  if (fresh || fKnownSize <= pos) {
    struct stat st;
    if (fstat(fFd, &st) != 0) return UINT64_MAX;
    fKnownSize = uint64_t(st.st_size);
  }
  return fKnownSize > pos ? fKnownSize - pos : 0;
}

size_t FLstream::fill(size_t n) {
  if (fRlen - fRpos >= n) return n;
  if (fFd < 0 || fWrite) return fRlen - fRpos;
  // Keep the unread bytes at the start of the buffer.
  if (fRpos > 0) {
    std::memmove(fRbuf.data(), fRbuf.data() + fRpos, fRlen - fRpos);
    fRbase += fRpos;
    fRlen -= fRpos;
    fRpos = 0;
  }
  // Grow step by step, so that a wrong size asked for on a stream costs
  // only as much memory as the data that really arrives.
  while (fRlen < n && !fEof) {
    if (fRbuf.size() < n) {
      size_t want = std::min(n, std::max(kBufSize, fRbuf.size() * 2));
      fRbuf.resize(want);
    }
    ssize_t r = ::read(fFd, fRbuf.data() + fRlen, fRbuf.size() - fRlen);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) {
      fEof = true;
      if (r < 0) fError = FL_EREAD;
      break;
    }
    fRlen += size_t(r);
  }
  return std::min(n, fRlen);
}

size_t FLstream::read(void* dst, size_t n) {
  auto* out = static_cast<uint8_t*>(dst);
  size_t done = 0;
  while (done < n) {
    if (fRpos == fRlen) {
      // Large reads go straight to the caller once the buffer is empty.
      if (n - done >= kBufSize && fFd >= 0 && !fEof) {
        ssize_t r = ::read(fFd, out + done, n - done);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
          fEof = true;
          break;
        }
        fRbase += fRpos + uint64_t(r);
        fRpos = fRlen = 0;
        done += size_t(r);
        continue;
      }
      if (fill(std::min(n - done, kBufSize)) == 0) break;
    }
    size_t k = std::min(n - done, fRlen - fRpos);
    std::memcpy(out + done, fRbuf.data() + fRpos, k);
    fRpos += k;
    done += k;
  }
  return done;
}

void FLstream::unread(const void* bytes, size_t n) {
  if (n == 0) return;
  if (fRpos >= n) {
    fRpos -= n;
    std::memcpy(fRbuf.data() + fRpos, bytes, n);
    return;
  }
  std::vector<uint8_t> fresh(n + (fRlen - fRpos) + kBufSize);
  std::memcpy(fresh.data(), bytes, n);
  std::memcpy(fresh.data() + n, fRbuf.data() + fRpos, fRlen - fRpos);
  uint64_t pos = tell();
  fRbase = pos >= n ? pos - n : 0;
  fRlen = n + (fRlen - fRpos);
  fRpos = 0;
  fRbuf = std::move(fresh);
}

int FLstream::write(const void* src, size_t n) {
  if (!fWrite) return FL_EMODE;
  auto* p = static_cast<const uint8_t*>(src);
  bool mayGoOut = fSeekable || fHold == 0;
  if (mayGoOut && n >= kFlushAt && fFd >= 0) {
    // Large pieces go straight to the file, after what is buffered.
    if (int rc = flush()) return rc;
    bool ok = writeAll(fFd, p, n, fSeekable, fWbase);
    fWbase += n;
    if (!ok) fError = FL_EWRITE;
    return ok ? 0 : FL_EWRITE;
  }
  fWbuf.insert(fWbuf.end(), p, p + n);
  if (fWbuf.size() >= kFlushAt && mayGoOut) return flush();
  return 0;
}

int FLstream::patch(uint64_t position, const void* src, size_t n) {
  if (position >= fWbase && position + n <= fWbase + fWbuf.size()) {
    std::memcpy(fWbuf.data() + (position - fWbase), src, n);
    return 0;
  }
  if (!fSeekable) return FL_ESEEK;
  if (position + n > fWbase) {
    if (int rc = flush()) return rc;
  }
  return writeAll(fFd, static_cast<const uint8_t*>(src), n, true, position) ? 0 : FL_EWRITE;
}

int FLstream::flush() {
  if (!fWrite || fWbuf.empty()) return 0;
  if (!fSeekable && fHold > 0) return 0;
  if (fFd < 0) return FL_EWRITE;
  bool ok = writeAll(fFd, fWbuf.data(), fWbuf.size(), fSeekable, fWbase);
  fWbase += fWbuf.size();
  fWbuf.clear();
  if (!ok) {
    fError = FL_EWRITE;
    return FL_EWRITE;
  }
  return 0;
}

int FLstream::seek(uint64_t position) {
  if (fWrite) {
    if (position == tell()) return 0;
    if (!fSeekable) return FL_ESEEK;
    if (int rc = flush()) return rc;
    fWbase = position;
    return 0;
  }
  if (position >= fRbase && position <= fRbase + fRlen) {
    fRpos = size_t(position - fRbase);
    return 0;
  }
  if (fSeekable) {
    if (::lseek(fFd, off_t(position), SEEK_SET) < 0) return FL_ESEEK;
    fRbase = position;
    fRpos = fRlen = 0;
    fEof = false;
    return 0;
  }
  // A stream only goes forward, by reading.
  if (position < tell()) return FL_ESEEK;
  uint64_t skip = position - tell();
  while (skip > 0) {
    size_t k = fill(size_t(std::min<uint64_t>(skip, kBufSize)));
    if (k == 0) return FL_EEOF;
    fRpos += k;
    skip -= k;
  }
  return 0;
}
