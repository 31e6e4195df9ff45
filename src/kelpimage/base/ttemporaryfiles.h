// The named temporary files the process holds, so that a signal handler can
// remove them before the process ends: a run stopped by SIGINT or SIGTERM
// leaves nothing behind. Files with no name need no entry here.
#pragma once

#include "kelpimage/kelpexport.h"

class KELP_API TtemporaryFiles {
 public:
  // Enters a file the process made; the entry stays until forget().
  static void add(const char* path);
  static void forget(const char* path);
  // Removes every file entered. Safe to call from a signal handler: it only
  // reads the entries and unlinks.
  static void removeAllNow();
  // SIGINT and SIGTERM remove every file entered, then end the process as
  // the signal would have; a thread that would enter a file meanwhile waits
  // for the end instead. For a program that installs no handler of its own.
  static void removeOnSignals();
};
