#include "kelpimage/plugin/gateway.h"

#include <atomic>

namespace {
std::atomic<const TformatProvider*> gProvider{nullptr};
}

const TformatProvider* setFormatProvider(const TformatProvider* provider) { return gProvider.exchange(provider); }

int loadAllPXFPlugins() {
  const TformatProvider* p = gProvider.load();
  return p && p->loadAllPlugins ? p->loadAllPlugins() : -1;
}

const char* pxfFileType(const char* name) {
  const TformatProvider* p = gProvider.load();
  return p && p->fileType ? p->fileType(name) : "__none_";
}

int anytoiff(const char* input, const char* output, const char* key, int frame) {
  const TformatProvider* p = gProvider.load();
  return p && p->anyToIff ? p->anyToIff(input, output, key, frame) : -1;
}

int getResolution(const char* input, unsigned& width, unsigned& height) {
  const TformatProvider* p = gProvider.load();
  return p && p->resolution ? p->resolution(input, width, height) : -1;
}

int ifftoany(const char* input, const char* output, const char* key) {
  const TformatProvider* p = gProvider.load();
  return p && p->iffToAny ? p->iffToAny(input, output, key) : -1;
}
