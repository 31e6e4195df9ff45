// A file written whole or not at all. The bytes go to a file with no name
// in the target's folder (or, where the file system cannot make one, to a
// temporary name beside the target), which takes the target's place only
// when commit() says the file is complete; a file never committed is gone.
// As a shell's ">" does: a symbolic link is followed and its target
// replaced, an existing file keeps its mode and (where the process may set
// it) its owner, and a device, a FIFO or an open descriptor (/dev/stdout,
// /dev/fd/N, /proc/self/fd/N) is written straight into.
#pragma once

#include <string>

#include "kelpimage/kelpexport.h"

class KELP_API TatomicFile {
 public:
  // kNamed: the temporary file has a name that ends in the target's
  // extension, for writers that tell a variant of a format by it.
  enum Flags { kNamed = 1 };

  TatomicFile() = default;
  explicit TatomicFile(const std::string& target, int flags = 0) { open(target, flags); }
  ~TatomicFile() { abandon(); }
  TatomicFile(const TatomicFile&) = delete;
  TatomicFile& operator=(const TatomicFile&) = delete;
  TatomicFile(TatomicFile&& other) noexcept;
  TatomicFile& operator=(TatomicFile&& other) noexcept;

  // False, with the reason in error(), when nothing can be written there.
  bool open(const std::string& target, int flags = 0);
  bool isOpen() const { return fFd >= 0; }
  // The descriptor the bytes go to (owned by this object).
  int fd() const { return fFd; }
  // A name that a writer which opens files by name can write through: the
  // temporary file (/proc/self/fd/N when it has no name of its own), or the
  // device or FIFO itself.
  const std::string& path() const { return fPath; }
  // Where the file ends: the target, links followed.
  const std::string& target() const { return fTarget; }
  // The target is a device or a FIFO, written straight into.
  bool direct() const { return fDirect; }
  // Flushes the file to the disk and puts it in place. False, with the
  // reason, when that fails; the target is then as it was.
  bool commit();
  // Gives the file up; the target is as it was.
  void abandon();
  // "TARGET: reason" of the last failure, empty when none; reason() alone.
  const std::string& error() const { return fError; }
  const std::string& reason() const { return fReason; }

  // The file a path names once its symbolic links are followed (the path
  // itself when it is not a link); a link to nothing gives what it points at.
  static std::string resolveLinks(const std::string& path);

 private:
  bool fail(const std::string& why);
  bool openNameless(const std::string& folder, unsigned mode);
  bool openNamed(const std::string& folder, const std::string& base, unsigned mode);
  bool linkIntoPlace();
  void keepOwner();
  void reset();

  std::string fTarget, fPath, fTemporary, fError, fReason;
  int fFd = -1;
  bool fDirect = false;
  bool fNameless = false;
  bool fHadFile = false;
  unsigned fOwner = 0, fGroup = 0;
};
