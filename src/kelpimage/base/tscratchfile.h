// A scratch file in the temporary directory ($TMPDIR, or /tmp) that has no
// name on disk: it goes when the object does, or with the process however
// it ends. Writers and readers that take a file name reach it by path().
#pragma once

#include <string>

#include "kelpimage/kelpexport.h"

class KELP_API TscratchFile {
 public:
  TscratchFile();
  ~TscratchFile();
  TscratchFile(const TscratchFile&) = delete;
  TscratchFile& operator=(const TscratchFile&) = delete;

  bool isOpen() const { return fFd >= 0; }
  int fd() const { return fFd; }
  // /proc/self/fd/N: opened by name, it is this file.
  const std::string& path() const { return fPath; }
  // Why the file could not be made, empty when it was.
  const std::string& error() const { return fError; }

 private:
  int fFd = -1;
  std::string fPath, fError;
};
