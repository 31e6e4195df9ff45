// kelpimage.Reader: a picture of any format the library reads, from a file
// or from bytes, read into NumPy arrays with the GIL released.
#include <memory>
#include <string>

#include "bindings.h"
#include "kelpimage/io/timagereader.h"

namespace kelppy {
namespace {

class Reader {
 public:
  Reader(const py::object& source, const std::string& format, bool lenient, const std::string& layer,
         const std::string& set, int alpha) {
    TreadOptions options;
    options.key = format;
    options.lenient = lenient;
    options.layer = layer;
    options.set = set;
    options.alpha = alpha;
    bool ok;
    if (py::isinstance<py::str>(source) || py::hasattr(source, "__fspath__")) {
      std::string path = py::str(py::module_::import("os").attr("fspath")(source));
      py::gil_scoped_release free;
      ok = fReader.open(path, options);
    } else {
      // Bytes, or anything of the buffer protocol: kept alive while read.
      fKept = py::reinterpret_borrow<py::object>(source);
      fBuffer = std::make_unique<py::buffer_info>(py::buffer(fKept).request());
      const size_t size = size_t(fBuffer->size) * size_t(fBuffer->itemsize);
      py::gil_scoped_release free;
      ok = fReader.openMemory(fBuffer->ptr, size, "<bytes>", options);
    }
    if (!ok) throw Failure(fReader.error());
  }

  const TimageInfo& spec() const { return fReader.spec(); }

  void seek(int frame) {
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fReader.seekFrame(frame);
    }
    if (!ok) throw Failure(fReader.error());
  }

  py::array rows(int32_t y0, int32_t y1, bool premultiplied) {
    const TimageInfo& s = spec();
    if (y0 < 0 || y1 > s.height || y0 > y1)
      throw py::index_error("rows " + std::to_string(y0) + " to " + std::to_string(y1) + " lie outside the picture");
    py::array out = newPicture(y1 - y0, s.width, s.channels(), s.sampleType);
    void* at = out.mutable_data();
    const Tassociation a = premultiplied ? Tassociation::kPremultiplied : Tassociation::kStraight;
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fReader.readRows(y0, y1, at, s.sampleType, 0, a);
    }
    if (!ok) throw Failure(fReader.error());
    return out;
  }

  py::array region(int32_t x0, int32_t y0, int32_t x1, int32_t y1, bool premultiplied) {
    const TimageInfo& s = spec();
    if (x0 < 0 || y0 < 0 || x1 > s.width || y1 > s.height || x0 > x1 || y0 > y1)
      throw py::index_error("the region lies outside the picture");
    py::array out = newPicture(y1 - y0, x1 - x0, s.channels(), s.sampleType);
    void* at = out.mutable_data();
    const Tassociation a = premultiplied ? Tassociation::kPremultiplied : Tassociation::kStraight;
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fReader.readRegion(x0, y0, x1, y1, at, s.sampleType, 0, a);
    }
    if (!ok) throw Failure(fReader.error());
    return out;
  }

  py::array depth() {
    const TimageInfo& s = spec();
    if (!s.depth) throw Failure(fReader.name() + ": the picture has no depth");
    py::array_t<float> out({s.height, s.width});
    float* z = out.mutable_data();
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fReader.readRows(0, s.height, nullptr, s.sampleType, 0, Tassociation::kStraight, z);
    }
    if (!ok) throw Failure(fReader.error());
    return out;
  }

  TimageReader fReader;

 private:
  py::object fKept;
  std::unique_ptr<py::buffer_info> fBuffer;
};

}  // namespace

void bindReader(py::module_& m) {
  py::class_<Reader>(m, "Reader",
                     "A picture of any format the library reads, from a path or bytes.\n\n"
                     "Rows come top first, channels red, green, blue then alpha (grey: 1 or 2),\n"
                     "at the file's own sample type; colour straight unless premultiplied=True.")
      .def(py::init<const py::object&, const std::string&, bool, const std::string&, const std::string&, int>(),
           py::arg("source"), py::arg("format") = "", py::arg("lenient") = false, py::arg("layer") = "",
           py::arg("set") = "", py::arg("alpha") = -1)
      .def_property_readonly("width", [](const Reader& r) { return r.spec().width; })
      .def_property_readonly("height", [](const Reader& r) { return r.spec().height; })
      .def_property_readonly("channels", [](const Reader& r) { return r.spec().channels(); })
      .def_property_readonly(
          "shape", [](const Reader& r) { return py::make_tuple(r.spec().height, r.spec().width, r.spec().channels()); })
      .def_property_readonly("dtype", [](const Reader& r) { return dtypeOf(r.spec().sampleType); })
      .def_property_readonly("frames", [](const Reader& r) { return r.spec().frames; })
      .def_property_readonly("frame", [](const Reader& r) { return r.fReader.frame(); })
      .def_property_readonly("format", [](const Reader& r) { return r.fReader.format().key; })
      .def_property_readonly("name", [](const Reader& r) { return r.fReader.name(); })
      .def_property_readonly("has_depth", [](const Reader& r) { return r.spec().depth; })
      .def_property_readonly("warnings", [](const Reader& r) { return r.fReader.warnings(); })
      .def(
          "describe",
          [](const Reader& r) {
            py::dict d = describe(r.spec());
            d["format"] = r.fReader.format().key;
            return d;
          },
          "The picture's description as a dict.")
      .def("seek", &Reader::seek, py::arg("frame"), "Moves to another frame (from 0).")
      .def(
          "read", [](Reader& r, bool premultiplied) { return r.rows(0, r.spec().height, premultiplied); },
          py::arg("premultiplied") = false, "The whole frame: an array of (height, width, channels).")
      .def("read_rows", &Reader::rows, py::arg("y0"), py::arg("y1"), py::arg("premultiplied") = false,
           "Rows y0 up to y1, from the top.")
      .def("read_region", &Reader::region, py::arg("x0"), py::arg("y0"), py::arg("x1"), py::arg("y1"),
           py::arg("premultiplied") = false, "A rectangle, each end left out.")
      .def("read_depth", &Reader::depth, "The depth channel: float32 (height, width), -1/z, 0 for none.")
      .def(
          "__enter__", [](Reader& r) -> Reader& { return r; }, py::return_value_policy::reference)
      .def("__exit__", [](Reader& r, const py::args&) { r.fReader.close(); })
      .def("close", [](Reader& r) { r.fReader.close(); });
}

}  // namespace kelppy
