#include "kelpimage/io/tsampletype.h"

#include "kelpimage/io/timageinfo.h"

size_t TsampleBytes(TsampleType type) {
  switch (type) {
    case TsampleType::kUint8: return 1;
    case TsampleType::kUint16:
    case TsampleType::kHalf: return 2;
    case TsampleType::kFloat: return 4;
  }
  return 1;
}

const char* TsampleName(TsampleType type) {
  switch (type) {
    case TsampleType::kUint8: return "uint8";
    case TsampleType::kUint16: return "uint16";
    case TsampleType::kHalf: return "half";
    case TsampleType::kFloat: return "float";
  }
  return "?";
}

bool TsampleIsFloat(TsampleType type) { return type == TsampleType::kHalf || type == TsampleType::kFloat; }

const char* TimageInfo::channelName(int i) const {
  static const char* const colour[] = {"R", "G", "B"};
  if (i < colorChannels) return colorChannels == 1 ? "Y" : colour[i];
  return alpha && i == colorChannels ? "A" : "";
}

size_t TimageInfo::rowBytes(TsampleType type) const {
  return size_t(width > 0 ? width : 0) * size_t(channels()) * TsampleBytes(type);
}
