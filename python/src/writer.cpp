// kelpimage.Writer: NumPy arrays into any format the library writes, to a
// file (whole or not at all) or into bytes, with the GIL released.
#include <memory>
#include <string>
#include <vector>

#include "bindings.h"
#include "kelpimage/io/timagewriter.h"

namespace kelppy {
namespace {

TwriteOptions optionsOf(const py::dict& options) {
  TwriteOptions o;
  for (const auto& [name, value] : options) o.set(py::str(name), value.cast<double>());
  return o;
}

class Writer {
 public:
  // A null path writes into memory; close() then gives the bytes.
  Writer(const py::object& path, const TimageInfo& spec, const std::string& format, const py::dict& options)
      : fSpec(spec), fMemory(path.is_none()) {
    TwriteOptions o = optionsOf(options);
    bool ok;
    if (fMemory) {
      if (format.empty()) throw py::value_error("a picture written into memory needs its format");
      py::gil_scoped_release free;
      ok = fWriter.createMemory(fBytes, format, spec, o);
    } else {
      std::string name = py::str(py::module_::import("os").attr("fspath")(path));
      py::gil_scoped_release free;
      ok = fWriter.create(name, spec, o, format);
    }
    if (!ok) throw Failure(fWriter.error());
  }

  void rows(int32_t y0, const py::array& array, const py::object& depth) {
    TimageInfo given = specOf(array, fSpec.association == Tassociation::kPremultiplied);
    if (given.width != fSpec.width || given.channels() != fSpec.channels())
      throw py::value_error("the rows are " + std::to_string(given.width) + " wide with " +
                            std::to_string(given.channels()) + " channels; the picture's " +
                            std::to_string(fSpec.width) + " with " + std::to_string(fSpec.channels()));
    py::array held = contiguous(array);
    py::array_t<float, py::array::c_style | py::array::forcecast> z;
    const float* zs = nullptr;
    if (fSpec.depth) {
      if (depth.is_none()) throw py::value_error("the picture has depth, and none was given");
      z = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(depth);
      if (!z || z.ndim() != 2 || z.shape(0) != given.height || z.shape(1) != given.width)
        throw py::value_error("depth is float32 of (height, width) as the rows");
      zs = z.data();
    }
    const void* px = held.data();
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fWriter.writeRows(y0, y0 + given.height, px, given.sampleType, 0, fSpec.association, zs);
    }
    if (!ok) throw Failure(fWriter.error());
  }

  void nextFrame(const TimageInfo& spec) {
    fSpec = spec;
    if (!fWriter.nextFrame(spec)) throw Failure(fWriter.error());
  }

  py::object close() {
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fWriter.close();
    }
    if (!ok) throw Failure(fWriter.error());
    if (!fMemory) return py::none();
    return py::bytes(reinterpret_cast<const char*>(fBytes.data()), fBytes.size());
  }

  TimageWriter fWriter;
  TimageInfo fSpec;

 private:
  bool fMemory;
  std::vector<uint8_t> fBytes;
};

TimageInfo pictureSpec(int32_t width, int32_t height, int channels, const py::object& dtype, bool premultiplied,
                       bool depth) {
  if (channels < 1 || channels > 4) throw py::value_error("a picture has 1 to 4 channels");
  TimageInfo spec;
  spec.width = width;
  spec.height = height;
  spec.colorChannels = channels >= 3 ? 3 : 1;
  spec.alpha = channels == 2 || channels == 4;
  spec.association = spec.alpha && premultiplied ? Tassociation::kPremultiplied : Tassociation::kStraight;
  spec.sampleType = sampleTypeOf(py::dtype::from_args(dtype));
  spec.bits = int(TsampleBytes(spec.sampleType) * 8);
  spec.depth = depth;
  return spec;
}

}  // namespace

void bindWriter(py::module_& m) {
  py::class_<Writer>(m, "Writer",
                     "A picture written in any format the library writes: to a path, whole or\n"
                     "not at all, or (path None) into bytes that close() gives.")
      .def(py::init([](const py::object& path, int32_t width, int32_t height, int channels, const py::object& dtype,
                       const std::string& format, bool premultiplied, bool depth, double dpi, const py::dict& options) {
             TimageInfo spec = pictureSpec(width, height, channels, dtype, premultiplied, depth);
             spec.dpi = dpi;
             return std::make_unique<Writer>(path, spec, format, options);
           }),
           py::arg("path"), py::arg("width"), py::arg("height"), py::arg("channels"), py::arg("dtype"),
           py::arg("format") = "", py::arg("premultiplied") = false, py::arg("depth") = false, py::arg("dpi") = 0.0,
           py::arg("options") = py::dict())
      .def_property_readonly("format", [](const Writer& w) { return w.fWriter.format().key; })
      .def_property_readonly("file_dtype", [](const Writer& w) { return dtypeOf(w.fWriter.spec().sampleType); })
      .def_property_readonly("warnings", [](const Writer& w) { return w.fWriter.warnings(); })
      .def(
          "write", [](Writer& w, const py::array& a, const py::object& depth) { w.rows(0, a, depth); },
          py::arg("array"), py::arg("depth") = py::none(), "The whole frame.")
      .def("write_rows", &Writer::rows, py::arg("y0"), py::arg("array"), py::arg("depth") = py::none(),
           "Rows from y0 down, in order from the top.")
      .def(
          "next_frame",
          [](Writer& w, int32_t width, int32_t height, int channels, const py::object& dtype, bool premultiplied) {
            w.nextFrame(pictureSpec(width, height, channels, dtype, premultiplied, false));
          },
          py::arg("width"), py::arg("height"), py::arg("channels"), py::arg("dtype"), py::arg("premultiplied") = false,
          "Ends the frame written, and starts another of a format of several.")
      .def("close", &Writer::close, "Puts the file in place (or gives the bytes); Error when any of it failed.")
      .def(
          "abandon", [](Writer& w) { w.fWriter.abandon(); }, "Gives the file up: the target stays as it was.")
      .def(
          "__enter__", [](Writer& w) -> Writer& { return w; }, py::return_value_policy::reference)
      .def("__exit__", [](Writer& w, const py::object& type, const py::object&, const py::object&) {
        if (!type.is_none())
          w.fWriter.abandon();
        else if (w.fWriter.isOpen())
          w.close();
      });
}

}  // namespace kelppy
