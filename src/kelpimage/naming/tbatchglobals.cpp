#include "kelpimage/naming/tbatchglobals.h"

#include <mutex>
#include <string>

const char* const gCutIdentifier = "kelpimage " KELP_VERSION;

namespace {
struct CommandLine {
  std::mutex lock;
  std::string text;
};
CommandLine& commandLine() {
  static CommandLine line;
  return line;
}
}  // namespace

Tstring TbatchGlobals::getCommandLine() {
  std::lock_guard<std::mutex> hold(commandLine().lock);
  return Tstring(commandLine().text);
}

void TbatchGlobals::setCommandLine(const Tstring& line) {
  std::lock_guard<std::mutex> hold(commandLine().lock);
  commandLine().text = line.str();
}
