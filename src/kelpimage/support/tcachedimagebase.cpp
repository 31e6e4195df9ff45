#include "kelpimage/support/tcachedimagebase.h"

#include <iomanip>
#include <iostream>

void TcachedImageBase::printError(const char* text) const { std::cerr << text << std::endl; }

void TcachedImageBase::printError(const char* text, const char* more) const { std::cerr << text << more << std::endl; }

void TcachedImageBase::printCacheStats(int bytes) const {
  std::ostream& out = std::cout;
  out << std::setw(20) << "" << std::endl;
  out << std::setw(20) << "Created cached image:" << std::endl << std::endl;
  out << std::setw(20) << "Using temp file " << fTempFileName.asChar() << std::endl << std::endl;
  out << std::setw(20) << "Resolution = " << fWidth << " x " << fHeight << std::endl << std::endl;
  out << std::setw(20) << "# chunks = " << fChunkCount << std::endl << std::endl;
  out << std::setw(20) << "chunk size = " << fChunkSize << "x" << fChunkSize << std::endl << std::endl;
  out << std::setw(20) << "# cache entries = " << fCacheEntries << std::endl << std::endl;
  out << std::setw(20) << "full image size = " << (double(fChunkSamples) * bytes * fChunkCount) / 1048576.0 << " MB "
      << std::endl
      << std::endl;
  out << std::setw(20) << "pct in memory = " << (double(fCacheEntries) * 100.0 / fChunkCount) << "%" << std::endl;
}

void TcachedImageBase::printAccessStats() const {
  std::ostream& out = std::cout;
  out << std::setw(20) << "Destroying TcachedImage....." << std::endl;
  out << std::setw(20) << "Cache Accesses = " << fAccesses << std::endl;
  out << std::setw(20) << "Cache Misses = " << fMisses << std::endl;
  out << std::setw(20) << "Hit pct = " << (double(fAccesses - fMisses) * 100.0 / double(fAccesses)) << "%" << std::endl;
}
