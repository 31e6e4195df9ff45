// Where a picture's bytes come from and go to: a file, a block of memory,
// or a stream of the caller's. Readers and writers of every format take
// these, so that a picture read from memory or written to a socket goes
// the same way as one on disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kelpimage/base/tatomicfile.h"
#include "kelpimage/kelpexport.h"

// Bytes to read. A caller's stream derives from this and gives read() (and
// seek() and size() when it can); the rest has defaults.
class KELP_API TinputStream {
 public:
  virtual ~TinputStream();
  // Up to `size` bytes into `data`: how many came, 0 at the end, -1 on an
  // error (with the reason in error()).
  virtual int64_t read(void* data, size_t size) = 0;
  // To an absolute position; false when the stream cannot go there.
  virtual bool seek(int64_t position);
  virtual int64_t tell() const = 0;
  // The stream's whole length, or -1 when it is not known.
  virtual int64_t size() const;
  virtual bool canSeek() const { return false; }
  // The name messages give: the file's, or what the caller called it.
  const std::string& name() const { return fName; }
  void setName(const std::string& name) { fName = name; }
  // Why the last read failed.
  const std::string& error() const { return fError; }

  // Reads exactly `size` bytes; false at an early end or an error.
  bool readAll(void* data, size_t size);
  // A file name by which the bytes can be opened again, for code that opens
  // files by name: the file itself, or an in-memory copy of the rest of the
  // stream (which reads the stream to its end, once). Empty, with the
  // reason in error(), when it cannot be made.
  virtual const std::string& path();
  // The stream's bytes in memory from the current position to the end, for
  // decoders that want the whole file: read once and kept.
  virtual bool readRest(std::vector<uint8_t>& bytes);

 protected:
  bool fail(const std::string& why);
  std::string fName, fError;

 private:
  int fCopy = -1;  // the in-memory copy path() made
  std::string fPath;
};

// A file on disk (or any descriptor): seekable when it is a regular file or
// a block device; a FIFO or a pipe reads once.
class KELP_API TfileInput : public TinputStream {
 public:
  TfileInput() = default;
  explicit TfileInput(const std::string& path) { open(path); }
  ~TfileInput() override;
  bool open(const std::string& path);
  bool isOpen() const { return fFd >= 0; }
  int64_t read(void* data, size_t size) override;
  bool seek(int64_t position) override;
  int64_t tell() const override { return fPosition; }
  int64_t size() const override { return fSize; }
  bool canSeek() const override { return fSeekable; }
  const std::string& path() override;

 private:
  int fFd = -1;
  bool fSeekable = false;
  int64_t fPosition = 0, fSize = -1;
  std::string fOpenedPath;
};

// A block of memory the caller keeps alive while it is read.
class KELP_API TmemoryInput : public TinputStream {
 public:
  TmemoryInput(const void* data, size_t size, const std::string& name = "memory");
  int64_t read(void* data, size_t size) override;
  bool seek(int64_t position) override;
  int64_t tell() const override { return int64_t(fPosition); }
  int64_t size() const override { return int64_t(fSize); }
  bool canSeek() const override { return true; }
  bool readRest(std::vector<uint8_t>& bytes) override;
  const uint8_t* data() const { return fData; }

 private:
  const uint8_t* fData;
  size_t fSize, fPosition = 0;
};

// Bytes to write. A caller's stream derives from this and gives write().
class KELP_API ToutputStream {
 public:
  virtual ~ToutputStream();
  // Writes all `size` bytes; false (with error()) when they cannot go.
  virtual bool write(const void* data, size_t size) = 0;
  virtual bool seek(int64_t position);
  virtual int64_t tell() const = 0;
  virtual bool canSeek() const { return false; }
  // How long the stream is so far, or -1 when it cannot say.
  virtual int64_t size() const { return -1; }
  // Ends the stream: for a file, puts it in place. False when that fails.
  virtual bool finish();
  const std::string& name() const { return fName; }
  void setName(const std::string& name) { fName = name; }
  const std::string& error() const { return fError; }
  // A file name that code which writes files by name can write through: the
  // stream's own file, or an in-memory file whose bytes finish() sends on.
  virtual const std::string& path();

 protected:
  bool fail(const std::string& why);
  // Sends what was written through path() into the stream.
  bool sendCopy();
  std::string fName, fError;

 private:
  int fCopy = -1;
  std::string fPath;
};

// A file written whole or not at all (TatomicFile): nothing shows at the
// name until finish(); a stream never finished leaves the target as it was.
class KELP_API TfileOutput : public ToutputStream {
 public:
  // `named`: the file has a temporary name ending in the target's extension
  // until it is whole (for writers that tell a variant by it).
  explicit TfileOutput(const std::string& path, bool named = false);
  ~TfileOutput() override;
  bool isOpen() const { return fFile.isOpen(); }
  bool write(const void* data, size_t size) override;
  bool seek(int64_t position) override;
  int64_t tell() const override { return fPosition; }
  bool canSeek() const override { return !fFile.direct(); }
  int64_t size() const override { return fEnd; }
  bool finish() override;
  const std::string& path() override { return fFile.path(); }
  // Gives the file up: the target stays as it was.
  void abandon() { fFile.abandon(); }

 private:
  TatomicFile fFile;
  int64_t fPosition = 0, fEnd = 0;
};

// A file written in place as the bytes come, for a caller that makes it
// whole another way (it writes under a temporary name of its own).
class KELP_API TplainFileOutput : public ToutputStream {
 public:
  explicit TplainFileOutput(const std::string& path);
  ~TplainFileOutput() override;
  bool isOpen() const { return fFd >= 0; }
  bool write(const void* data, size_t size) override;
  bool seek(int64_t position) override;
  int64_t tell() const override { return fPosition; }
  bool canSeek() const override { return fSeekable; }
  int64_t size() const override { return fEnd; }
  bool finish() override;
  const std::string& path() override { return fPath; }

 private:
  int fFd = -1;
  bool fSeekable = false;
  int64_t fPosition = 0, fEnd = 0;
  std::string fPath;
};

// Bytes gathered in memory.
class KELP_API TmemoryOutput : public ToutputStream {
 public:
  explicit TmemoryOutput(const std::string& name = "memory") { setName(name); }
  bool write(const void* data, size_t size) override;
  bool seek(int64_t position) override;
  int64_t tell() const override { return int64_t(fPosition); }
  bool canSeek() const override { return true; }
  int64_t size() const override { return int64_t(fBytes.size()); }
  bool finish() override { return sendCopy(); }
  std::vector<uint8_t>& bytes() { return fBytes; }

 private:
  std::vector<uint8_t> fBytes;
  size_t fPosition = 0;
};
