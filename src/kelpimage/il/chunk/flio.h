// Private stream state behind a file record: a descriptor with a read buffer
// and push-back, or a write buffer; the child processes of pipes and filters;
// the stack of open groups.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelpimage/il/chunk/fl.h"

class FLstream {
 public:
  FLstream() = default;
  FLstream(const FLstream&) = delete;
  FLstream& operator=(const FLstream&) = delete;
  ~FLstream();

  // Opening. `command` runs through /bin/sh with its output (reading) or
  // input (writing) connected to this stream.
  int openFile(const std::string& path, bool write);
  int openCommand(const std::string& command, bool write);
  int openStdio(bool write);
  // Reading through `command`, fed from `upstream` (which this stream takes over).
  int openReadFilter(const std::string& command, std::unique_ptr<FLstream> upstream);
  // Writing through `command`, whose output goes to `downstream`.
  int openWriteFilter(const std::string& command, std::unique_ptr<FLstream> downstream);
  // Closes everything; the result is 0 or a code (a write command that failed).
  int close();

  bool writing() const { return fWrite; }
  bool seekable() const { return fSeekable; }
  uint64_t tell() const { return fWrite ? fWbase + fWbuf.size() : fRbase + fRpos; }

  // Reading.
  size_t available() const { return fRlen - fRpos; }
  // Makes `n` bytes readable in one piece; returns how many could be (fewer at end).
  size_t fill(size_t n);
  const uint8_t* peek() const { return fRbuf.data() + fRpos; }
  void consume(size_t n) { fRpos += n; }
  size_t read(void* dst, size_t n);
  void unread(const void* bytes, size_t n);
  // Bytes left in a regular file behind the position, or UINT64_MAX if
  // unknown; from the size last seen unless `fresh`.
  uint64_t remaining(bool fresh = false) const;

  // Writing.
  int write(const void* src, size_t n);
  int patch(uint64_t position, const void* src, size_t n);
  int flush();
  // While held, a stream that cannot seek keeps all it is given, so that
  // group sizes can still be patched before the bytes go out.
  void hold(int delta) { fHold += delta; }
  int held() const { return fHold; }

  int seek(uint64_t position);

 private:
  int spawn(const std::string& command, int childIn, int childOut);
  int reap();
  void adopt(int fd, bool write);

  int fFd = -1;
  bool fWrite = false;
  bool fSeekable = false;
  std::vector<pid_t> fChildren;
  int fHold = 0;
  int fError = 0;

  std::vector<uint8_t> fRbuf;
  size_t fRpos = 0, fRlen = 0;
  uint64_t fRbase = 0;
  bool fEof = false;
  mutable uint64_t fKnownSize = 0;  // of a regular file, as last seen

  std::vector<uint8_t> fWbuf;
  uint64_t fWbase = 0;

  // A read filter's feeder thread and the stream it drains.
  std::unique_ptr<FLstream> fUpstream;
  std::thread fFeeder;
  int fFeedFd = -1;
  // A write filter's destination, kept open until the filter is done.
  std::unique_ptr<FLstream> fDownstream;
};

// Everything the services keep for one file record.
struct FLio {
  std::unique_ptr<FLstream> stream = std::make_unique<FLstream>();
  FLgroup root{};
  FLformfn form = nullptr;
  std::vector<uint8_t> chunkbuf;  // FLbgnwbchunk
  uint32_t chunktag = 0;
  bool chunkopen = false;
  std::string name;
};

// While one of these lives, commands that the calling thread starts have
// their standard error sent to /dev/null: a converter's complaints are its
// caller's error code, not text on the host's terminal.
struct FLquietchildren {
  FLquietchildren();
  ~FLquietchildren();
  FLquietchildren(const FLquietchildren&) = delete;
  FLquietchildren& operator=(const FLquietchildren&) = delete;
  static bool active();
};

// The calling thread's search path for opens (set with FLswappath).
FLpath* FLcurrentpath();

// Helpers shared by the file and group code.
int FLfail(int code);  // sets flerrno, returns the code
// Notes errno as the detail of the next FL_ESYS text, and returns FL_ESYS.
int FLsysfail();
// The errno that FLsysfail noted last on this thread.
int FLsyserrno();
