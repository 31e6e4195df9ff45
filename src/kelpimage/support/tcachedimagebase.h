// The statistics of a cached image, and how they are printed.
#pragma once

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TcachedImageBase {
 public:
  TcachedImageBase() = default;
  TcachedImageBase(const TcachedImageBase&) = default;
  TcachedImageBase& operator=(const TcachedImageBase&) = default;
  virtual ~TcachedImageBase() = default;

 protected:
  void printError(const char* text) const;
  void printError(const char* text, const char* more) const;
  void printCacheStats(int bytes) const;
  void printAccessStats() const;

  int fWidth = 0;
  int fHeight = 0;
  int fChunkSize = 0;     // a chunk is fChunkSize by fChunkSize samples
  int fChunkSamples = 0;  // samples of one chunk
  int fChunkCount = 0;
  int fCacheEntries = 0;
  Tstring fTempFileName;
  int fAccesses = 0;
  int fMisses = 0;
};
