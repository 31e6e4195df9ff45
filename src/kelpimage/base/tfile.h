// Paths, files on disk, directories and time stamps.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <memory>

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

// A time stamp with nanoseconds.
class KELP_API Ttime {
 public:
  Ttime() = default;
  void setTime(time_t seconds, long nanoseconds = 0) {
    fSeconds = seconds;
    fNanoseconds = nanoseconds;
  }
  time_t seconds() const { return fSeconds; }
  bool operator==(const Ttime& o) const { return fSeconds == o.fSeconds && fNanoseconds == o.fNanoseconds; }
  bool operator!=(const Ttime& o) const { return !(*this == o); }

 private:
  time_t fSeconds = 0;
  long fNanoseconds = 0;
};

class KELP_API TfilePath {
 public:
  TfilePath() = default;
  TfilePath(const char* path) : fPath(path) {}
  TfilePath(const Tstring& path) : fPath(path) {}
  const Tstring& fullName() const { return fPath; }
  Tstring baseName() const { return fPath.baseName(); }
  Tstring dirName() const { return fPath.directoryPath(); }
  bool isDirectory() const;

 private:
  Tstring fPath;
};

class KELP_API TfileSystemEntity {
 public:
  TfileSystemEntity() = default;
  explicit TfileSystemEntity(const Tstring& name) : fName(name) {}
  virtual ~TfileSystemEntity() = default;
  const Tstring& getFullName() const { return fName; }
  bool exists() const;
  // The time of the last change of the file; zero if it does not exist.
  Ttime modificationTime() const;

 protected:
  Tstring fName;
};

class KELP_API TfileStream : public TfileSystemEntity {
 public:
  using TfileSystemEntity::TfileSystemEntity;
  void setFullName(const Tstring& name) { fName = name; }
};

// Makes directories: setPath names the parent, makeAndSet makes one level below it.
class KELP_API Tdirectory {
 public:
  void setPath(const Tstring& path) { fPath = path; }
  const Tstring& path() const { return fPath; }
  // Makes `name` in the current path (an existing directory counts) and moves into it.
  bool makeAndSet(const Tstring& name);

 private:
  Tstring fPath;
};

// Walks the entries of one directory, "." and ".." left out.
class KELP_API TdirIterator {
 public:
  explicit TdirIterator(const Tstring& path);
  ~TdirIterator();
  TdirIterator(const TdirIterator&) = delete;
  TdirIterator& operator=(const TdirIterator&) = delete;
  bool isDone() const { return fDone; }
  void next();
  bool isFile() const { return fIsFile; }
  const Tstring& name() const { return fEntry; }

 private:
  void* fDir = nullptr;
  Tstring fPath;
  Tstring fEntry;
  bool fIsFile = false;
  bool fDone = true;
};

// The process's directory for temporary files: $TMPDIR, or /tmp.
class KELP_API TtemporaryDirectory {
 public:
  Tstring getFullName() const;
};
KELP_API extern TtemporaryDirectory theTempDirectory;
