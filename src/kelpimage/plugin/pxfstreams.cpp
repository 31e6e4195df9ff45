#include "kelpimage/plugin/pxfstreams.h"

namespace {

TinputStream& input(void* user) { return *static_cast<TinputStream*>(user); }
ToutputStream& output(void* user) { return *static_cast<ToutputStream*>(user); }

int64_t readIn(void* user, void* data, int64_t size) { return size < 0 ? -1 : input(user).read(data, size_t(size)); }
int64_t noWrite(void*, const void*, int64_t) { return -1; }
int seekIn(void* user, int64_t position) { return input(user).seek(position) ? 0 : -1; }
int64_t tellIn(void* user) { return input(user).tell(); }
int64_t sizeIn(void* user) { return input(user).size(); }
const char* pathIn(void* user) {
  const std::string& path = input(user).path();
  return path.empty() ? nullptr : path.c_str();
}
const char* errorIn(void* user) { return input(user).error().c_str(); }

int64_t noRead(void*, void*, int64_t) { return -1; }
int64_t writeOut(void* user, const void* data, int64_t size) {
  return size >= 0 && output(user).write(data, size_t(size)) ? size : -1;
}
int seekOut(void* user, int64_t position) { return output(user).seek(position) ? 0 : -1; }
int64_t tellOut(void* user) { return output(user).tell(); }
int64_t sizeOut(void* user) { return output(user).size(); }
const char* pathOut(void* user) {
  const std::string& path = output(user).path();
  return path.empty() ? nullptr : path.c_str();
}
const char* errorOut(void* user) { return output(user).error().c_str(); }

}  // namespace

PxfStream pxfReading(TinputStream& in) {
  return PxfStream{&in, in.name().c_str(), readIn, noWrite, seekIn, tellIn, sizeIn, pathIn, errorIn};
}

PxfStream pxfWriting(ToutputStream& out) {
  return PxfStream{&out, out.name().c_str(), noRead, writeOut, seekOut, tellOut, sizeOut, pathOut, errorOut};
}
