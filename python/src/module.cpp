// The compiled half of the kelpimage package: the library's readers,
// writers, conversion, zoom, documents and frame patterns for Python. The
// package's __init__ gives them Python's conventions.
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.h"
#include "kelpimage/io/tconvert.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "kelpimage/io/tresize.h"
#include "kelpimage/naming/tframepattern.h"

namespace kelppy {
namespace {

py::list formats() {
  py::list out;
  for (const TformatInfo& f : TformatCatalogue::formats()) {
    py::dict d;
    d["key"] = f.key;
    d["name"] = f.name;
    d["description"] = f.description;
    d["extensions"] = f.extensions;
    d["read"] = f.canRead;
    d["write"] = f.canWrite;
    py::list types;
    for (TsampleType t : {TsampleType::kUint8, TsampleType::kUint16, TsampleType::kHalf, TsampleType::kFloat})
      if (f.reads(t)) types.append(dtypeOf(t));
    d["dtypes"] = types;
    d["alpha"] = f.alpha;
    d["premultiplied"] = f.association == Tassociation::kPremultiplied && !f.anyAssociation;
    d["depth"] = f.depth;
    d["frames"] = f.frames;
    py::dict options;
    for (const TformatOption& o : f.options) {
      py::dict one;
      one["minimum"] = o.minimum;
      one["maximum"] = o.maximum;
      one["default"] = o.fallback;
      one["help"] = o.help;
      options[py::str(o.name)] = one;
    }
    d["options"] = options;
    out.append(d);
  }
  return out;
}

std::string convert(const std::string& input, const std::string& output, const std::string& format, int frame,
                    int32_t width, int32_t height, const std::string& filter, float blurX, float blurY, bool lenient,
                    int threads, const py::dict& options) {
  TconvertOptions o;
  o.threads = threads;
  o.key = format;
  o.frame = frame;
  o.width = width;
  o.height = height;
  o.filter = filter;
  o.blurX = blurX;
  o.blurY = blurY;
  o.read.lenient = lenient;
  for (const auto& [name, value] : options) o.write.set(py::str(name), value.cast<double>());
  std::string error, warnings;
  bool ok;
  {
    py::gil_scoped_release free;
    ok = TconvertImage(input, output, o, error, &warnings);
  }
  if (!ok) throw Failure(error);
  return warnings;
}

py::array resizeArray(const py::array& array, int32_t width, int32_t height, const std::string& filter, float blurX,
                      float blurY, bool premultiplied) {
  TimageInfo spec = specOf(array, premultiplied);
  py::array in = contiguous(array);
  py::array out = newPicture(height, width, spec.channels(), spec.sampleType);
  if (array.ndim() == 2) out = out.reshape({height, width});
  TresizeOptions options{filter, blurX, blurY};
  std::string why;
  const void* from = in.data();
  void* to = out.mutable_data();
  bool ok;
  {
    py::gil_scoped_release free;
    ok = TresizePixels(from, spec, 0, to, width, height, options, why);
  }
  if (!ok) throw py::value_error(why);
  return out;
}

py::list frameFiles(const std::string& pattern, const std::string& frames) {
  TframePattern p;
  if (!TframePattern::parse(pattern, p))
    throw py::value_error("not a frame pattern (name.####.ext, name.#.ext or name.%04d.ext): " + pattern);
  std::vector<long> numbers;
  std::string why;
  if (frames.empty())
    numbers = p.onDisk();
  else if (!TframePattern::parseRange(frames, numbers, why))
    throw py::value_error(why);
  py::list out;
  for (long n : numbers) out.append(py::make_tuple(n, p.name(n)));
  return out;
}

}  // namespace
}  // namespace kelppy

PYBIND11_MODULE(_kelpimage, m) {
  using namespace kelppy;
  m.doc() = "The kelp-image library's readers, writers, conversion and zoom.";
  py::register_exception<Failure>(m, "Error", PyExc_OSError);
  bindReader(m);
  bindWriter(m);
  bindPsd(m);
  m.def("formats", &formats, "Every format the library knows, as dicts.");
  m.def("convert", &convert, py::arg("input"), py::arg("output"), py::arg("format") = "", py::arg("frame") = -1,
        py::arg("width") = 0, py::arg("height") = 0, py::arg("filter") = "", py::arg("blur_x") = 0.0f,
        py::arg("blur_y") = 0.0f, py::arg("lenient") = false, py::arg("threads") = 0, py::arg("options") = py::dict(),
        "A file into another format in one pass; gives the warnings.");
  m.def("resize", &resizeArray, py::arg("array"), py::arg("width"), py::arg("height"), py::arg("filter") = "",
        py::arg("blur_x") = 0.0f, py::arg("blur_y") = 0.0f, py::arg("premultiplied") = false);
  m.def("frame_files", &frameFiles, py::arg("pattern"), py::arg("frames") = "",
        "(frame, name) of a frame pattern's frames: those on disk, or the range given.");
}
