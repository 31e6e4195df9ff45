#include <string>

#include "bindings.h"

namespace kelppy {

py::dtype dtypeOf(TsampleType type) {
  switch (type) {
    case TsampleType::kUint8: return py::dtype::of<uint8_t>();
    case TsampleType::kUint16: return py::dtype::of<uint16_t>();
    case TsampleType::kHalf: return py::dtype("float16");
    case TsampleType::kFloat: return py::dtype::of<float>();
  }
  return py::dtype::of<uint8_t>();
}

TsampleType sampleTypeOf(const py::dtype& dtype) {
  const char kind = dtype.kind();
  const auto size = dtype.itemsize();
  if (kind == 'u' && size == 1) return TsampleType::kUint8;
  if (kind == 'u' && size == 2) return TsampleType::kUint16;
  if (kind == 'f' && size == 2) return TsampleType::kHalf;
  if (kind == 'f' && size == 4) return TsampleType::kFloat;
  throw py::type_error("pictures hold uint8, uint16, float16 or float32 samples, not " +
                       std::string(py::str(static_cast<py::object>(dtype))));
}

py::array newPicture(int32_t height, int32_t width, int channels, TsampleType type) {
  return py::array(dtypeOf(type), std::vector<py::ssize_t>{height, width, channels});
}

TimageInfo specOf(const py::array& array, bool premultiplied) {
  if (array.ndim() != 2 && array.ndim() != 3)
    throw py::value_error("a picture is an array of (height, width) or (height, width, channels)");
  const py::ssize_t channels = array.ndim() == 3 ? array.shape(2) : 1;
  if (channels < 1 || channels > 4)
    throw py::value_error("a picture has 1 to 4 channels, not " + std::to_string(channels));
  if (array.shape(0) < 1 || array.shape(1) < 1 || array.shape(0) > 65535 || array.shape(1) > 65535)
    throw py::value_error("a picture's sides are from 1 to 65535");
  TimageInfo spec;
  spec.height = int32_t(array.shape(0));
  spec.width = int32_t(array.shape(1));
  spec.colorChannels = channels >= 3 ? 3 : 1;
  spec.alpha = channels == 2 || channels == 4;
  spec.association = spec.alpha && premultiplied ? Tassociation::kPremultiplied : Tassociation::kStraight;
  spec.sampleType = sampleTypeOf(array.dtype());
  spec.bits = int(TsampleBytes(spec.sampleType) * 8);
  return spec;
}

py::array contiguous(const py::array& array) {
  return py::array::ensure(array, py::array::c_style | py::array::forcecast);
}

py::dict describe(const TimageInfo& s) {
  py::dict d;
  d["width"] = s.width;
  d["height"] = s.height;
  d["channels"] = s.channels();
  d["alpha"] = s.alpha;
  d["premultiplied"] = s.alpha && s.association == Tassociation::kPremultiplied;
  d["depth"] = s.depth;
  d["dtype"] = dtypeOf(s.sampleType);
  d["bits"] = s.bits;
  d["frames"] = s.frames;
  d["origin"] = py::make_tuple(s.x, s.y);
  d["full_size"] = py::make_tuple(s.displayWidth(), s.displayHeight());
  d["pixel_aspect"] = s.pixelAspect;
  d["dpi"] = s.dpi > 0.0 ? py::object(py::float_(s.dpi)) : py::object(py::none());
  d["tile_size"] = s.tileWidth > 0 ? py::object(py::make_tuple(s.tileWidth, s.tileHeight)) : py::object(py::none());
  d["compression"] = s.compression;
  py::dict fields, details;
  for (const auto& [name, value] : s.fields) fields[py::str(name)] = py::bytes(value);
  for (const auto& [name, value] : s.details) details[py::str(name)] = value;
  d["fields"] = fields;
  d["details"] = details;
  return d;
}

}  // namespace kelppy
