#include "kelpimage/image/formatprovider.h"

#include <atomic>

namespace {
// The provider the library brings (its plug-in framework), and the one a
// host put in its place.
std::atomic<const TformatProvider*> gBuiltIn{nullptr};
std::atomic<const TformatProvider*> gChosen{nullptr};

const TformatProvider* provider() {
  const TformatProvider* chosen = gChosen.load();
  return chosen ? chosen : gBuiltIn.load();
}
}  // namespace

const TformatProvider* setFormatProvider(const TformatProvider* p) { return gChosen.exchange(p); }

void setBuiltInFormatProvider(const TformatProvider* p) { gBuiltIn.store(p); }

int loadAllPXFPlugins() {
  const TformatProvider* p = provider();
  return p && p->loadAllPlugins ? p->loadAllPlugins() : -1;
}

const char* pxfFileType(const char* name) {
  const TformatProvider* p = provider();
  return p && p->fileType ? p->fileType(name) : "__none_";
}

int anytoiff(const char* input, const char* output, const char* key, int frame) {
  const TformatProvider* p = provider();
  return p && p->anyToIff ? p->anyToIff(input, output, key, frame) : -1;
}

int getResolution(const char* input, unsigned& width, unsigned& height) {
  const TformatProvider* p = provider();
  return p && p->resolution ? p->resolution(input, width, height) : -1;
}

int ifftoany(const char* input, const char* output, const char* key) {
  const TformatProvider* p = provider();
  return p && p->iffToAny ? p->iffToAny(input, output, key) : -1;
}

int ifftoanyFinish(const char* output) {
  const TformatProvider* p = provider();
  return p && p->finishOutput ? p->finishOutput(output) : 0;
}
