// Where kimg's files come from and go to. Every command reads its inputs
// and writes its outputs through these, so that "-" (standard input or
// output) and "pipe:COMMAND" work the same everywhere, and so that an output
// appears whole or not at all.
#pragma once

#include <memory>
#include <string>

#include "kelpimage/base/tatomicfile.h"
#include "kelpimage/base/tscratchfile.h"

namespace kimg {

// An input as a path the library can open: a file name as it stands, or,
// for "-", "pipe:COMMAND" and anything that cannot be read twice (a FIFO,
// /dev/fd/N of a process substitution), its bytes read once into a scratch
// file with no name on disk.
class Input {
 public:
  explicit Input(const std::string& name);
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Empty when the input is ready; otherwise why it cannot be read.
  const std::string& error() const { return fError; }
  const std::string& name() const { return fName; }
  const std::string& path() const { return fPath; }

 private:
  void copyOnce(bool command);
  std::string fName, fPath, fError;
  std::unique_ptr<TscratchFile> fScratch;
};

// An output, written where the writer never shows a part of it: a file with
// no name in the target's folder (or a temporary name beside it that keeps
// its extension, kNamed), put in place by commit(); a scratch file for "-"
// and "pipe:", sent on by commit(); a device or a FIFO, written straight
// into. One that is never committed is gone: a failed command leaves
// nothing behind, and never a part of a file where a whole one stood.
// kLibrary: the library writes the file whole itself (plug-in formats,
// Photoshop documents), so path() is the target, and only "-" and "pipe:"
// go through a scratch file.
class Output {
 public:
  enum Mode { kNameless, kNamed, kLibrary };
  explicit Output(const std::string& name, Mode mode = kNameless);
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  const std::string& error() const { return fError; }
  const std::string& name() const { return fName; }
  // Where the writer writes.
  const std::string& path() const { return fPath; }
  // Puts the file in place, or sends it to standard output or to the
  // command. 0, or 1 with a message.
  int commit();

 private:
  std::string fName, fPath, fError;
  TatomicFile fFile;
  std::unique_ptr<TscratchFile> fScratch;
  bool fLibrary = false;
};

// The output's extension, lower case, without the dot; empty for none.
std::string extensionOf(const std::string& name);

// Ends the process's writing to standard output: 0, or 1 (with a message
// unless `quiet`) when any of it could not be written.
int finishStandardOutput(bool quiet);

}  // namespace kimg
