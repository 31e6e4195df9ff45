// Where kimg's files come from and go to. Every command reads its inputs
// and writes its outputs through these, so that "-" (standard input or
// output) and "pipe:COMMAND" work the same everywhere, and so that an output
// appears whole or not at all.
#pragma once

#include <string>

namespace kimg {

// An input as a path the library can open: a file name as it stands, or the
// bytes of "-" or of "pipe:COMMAND" copied into a temporary file first.
class Input {
 public:
  explicit Input(const std::string& name);
  ~Input();
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  // Empty when the input is ready; otherwise why it cannot be read.
  const std::string& error() const { return fError; }
  const std::string& name() const { return fName; }
  const std::string& path() const { return fPath; }

 private:
  std::string fName, fPath, fTemp, fError;
};

// An output, written under a temporary name beside the target (in the
// temporary directory for "-" and "pipe:") and put in place by commit().
// One that is never committed is removed: a failed command leaves nothing
// behind, and never a part of a file where a whole one stood. Devices and
// fifos are written directly.
class Output {
 public:
  explicit Output(const std::string& name);
  ~Output();
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  const std::string& error() const { return fError; }
  const std::string& name() const { return fName; }
  // Where the writer writes.
  const std::string& path() const { return fTemp; }
  // Renames the file into place, or sends it to standard output or to the
  // command. 0, or 1 with a message.
  int commit();

 private:
  std::string fName, fTemp, fError;
  bool fDone = false;
  bool fDirect = false;
};

// A scratch file in the temporary directory, removed when it goes.
class Scratch {
 public:
  Scratch();
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  const std::string& error() const { return fError; }
  const std::string& path() const { return fPath; }

 private:
  std::string fPath, fError;
};

// The output's extension, lower case, without the dot; empty for none.
std::string extensionOf(const std::string& name);

}  // namespace kimg
