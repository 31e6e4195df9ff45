// kelpimage.Psd: a Photoshop document's layers and what they hold, read
// through the library's document classes and readers, edited and saved.
// Pixels come from the file as it stands: edits show once it is saved.
#include <memory>
#include <string>
#include <vector>

#include <pybind11/stl.h>

#include "bindings.h"
#include "kelpimage/io/timagereader.h"
#include "kelpimage/photoshop/tpsdfile.h"
#include "kelpimage/photoshop/tpsdlayer.h"

namespace kelppy {
namespace {

using namespace zkPhotoshop;

std::string keyText(uint32_t key) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) s += char(key >> shift);
  return s;
}

uint32_t keyOf(std::string text) {
  if (text.empty() || text.size() > 4) throw py::value_error("a blend mode is a key of up to four characters: " + text);
  text.resize(4, ' ');
  return uint32_t(uint8_t(text[0])) << 24 | uint32_t(uint8_t(text[1])) << 16 | uint32_t(uint8_t(text[2])) << 8 |
         uint8_t(text[3]);
}

// A picture of the document read by the library's reader: the flattened
// image, a set's composite or a layer ("#N"), colour straight.
py::array readPart(const std::string& path, const std::string& layer, const std::string& set) {
  TreadOptions options;
  options.key = "psd";
  options.layer = layer;
  options.set = set;
  TimageReader reader;
  bool ok;
  {
    py::gil_scoped_release free;
    ok = reader.open(path, options);
  }
  if (!ok) throw Failure(reader.error());
  const TimageInfo& s = reader.spec();
  py::array out = newPicture(s.height, s.width, s.channels(), s.sampleType);
  void* at = out.mutable_data();
  {
    py::gil_scoped_release free;
    ok = reader.readImage(at, s.sampleType);
  }
  if (!ok) throw Failure(reader.error());
  return out;
}

class Psd;

struct Layer {
  Psd* document;
  TpsdLayer* layer;
  int index;  // among the ordinary layers, in file order
};

class Psd {
 public:
  explicit Psd(const py::object& path) {
    fPath = py::str(py::module_::import("os").attr("fspath")(path));
    fDoc.open(TfilePath(fPath.c_str()), true);  // edit mode: saved elsewhere or in place, whole
    if (fDoc.fPath.fullName().isEmpty() || (!fDoc.readAllLayerRecordInformation() && !fDoc.lastReason().isEmpty()))
      throw Failure(fPath + ": " + reason("not a Photoshop document this library reads"));
  }
  Psd(int width, int height, int depth) : fNew(true) {
    if (width < 1 || height < 1 || width > 30000 || height > 30000) throw py::value_error("sides are from 1 to 30000");
    if (depth != 8 && depth != 16) throw py::value_error("documents are of 8 or 16 bits");
    unsigned short w = uint16_t(width), h = uint16_t(height);
    fDoc.fDepth = uint16_t(depth);
    fDoc.create(TfilePath(""), w, h);
    fDoc.addWhiteBackground();
  }

  std::string reason(const char* fallback) const {
    return fDoc.lastReason().isEmpty() ? fallback : fDoc.lastReason().str();
  }

  std::vector<Layer> layers() {
    std::vector<Layer> out;
    int index = 0;
    for (const auto& l : fDoc.fLayers)
      if (l->fSectionType == sectionLayer && l->fState != 2) out.push_back(Layer{this, l.get(), index++});
    return out;
  }

  TpsdLayer& layerNamed(const std::string& name) {
    for (const auto& l : fDoc.fLayers)
      if (l->fState != 2 && l->isNamed(Tstring(name.c_str()))) return *l;
    throw py::key_error("the document has no layer \"" + name + "\"");
  }

  const std::string& path() const {
    if (fNew && fSavedTo.empty()) throw py::value_error("a new document has pixels to read once it is saved");
    return fSavedTo.empty() ? fPath : fSavedTo;
  }

  void addLayer(const std::string& name, const py::array& array) {
    TimageInfo spec = specOf(array, false);
    const bool wide = fDoc.fDataFormat == dataFormat16;
    const TsampleType type = wide ? TsampleType::kUint16 : TsampleType::kUint8;
    if (spec.sampleType != type)
      throw py::type_error(std::string("the document's layers are ") + (wide ? "uint16" : "uint8"));
    if (spec.width != int32_t(fDoc.fImageWidth) || spec.height != int32_t(fDoc.fImageHeight))
      throw py::value_error("a new layer is the document's size");
    py::array held = contiguous(array);
    const size_t channels = size_t(spec.channels()), count = size_t(spec.width) * size_t(spec.height);
    uint32_t w = uint32_t(spec.width), h = uint32_t(spec.height);
    auto pixels = std::make_unique<TpixelData16>(fDoc.fDataFormat, w, h, false);
    pixels->addChannel(channelTransparency, w, h, uint16_t(pixels->getMaxColor()));
    auto sample = [&](size_t i) -> uint32_t {
      return wide ? static_cast<const uint16_t*>(held.data())[i] : static_cast<const uint8_t*>(held.data())[i];
    };
    const bool grey = spec.colorChannels == 1;
    for (size_t i = 0; i < count; ++i) {
      size_t at = i * channels;
      pixels->setRed(uint32_t(i), sample(at));
      pixels->setGreen(uint32_t(i), sample(grey ? at : at + 1));
      pixels->setBlue(uint32_t(i), sample(grey ? at : at + 2));
      if (spec.alpha) pixels->setTrans(uint32_t(i), sample(at + channels - 1));
    }
    TrgbaData image(w, h, pixels.release(), 4, false);
    if (!fDoc.addNormalLayer(Tstring(name.c_str()), &image))
      throw Failure(fPath + ": " + reason("the layer cannot be added"));
  }

  void save(const py::object& target) {
    std::string to = py::str(py::module_::import("os").attr("fspath")(target));
    if (fNew) {
      fDoc.fPath = TfilePath(to.c_str());
      if (!fDoc.flattenLayers()) throw Failure(to + ": " + reason("the layers cannot be flattened"));
    }
    bool ok;
    {
      py::gil_scoped_release free;
      ok = fDoc.savePsdFile(TfilePath(to.c_str()));
    }
    if (!ok) throw Failure(to + ": " + reason("the document cannot be written"));
    fSavedTo = to;
  }

  TpsdFile fDoc;
  std::string fPath, fSavedTo;
  bool fNew = false;
};

py::object maskOf(Layer& l) {
  TpsdLayer& layer = *l.layer;
  int32_t w = layer.fMaskRect.right - layer.fMaskRect.left, h = layer.fMaskRect.bottom - layer.fMaskRect.top;
  if (!layer.hasChannel(channelUserMask) || w <= 0 || h <= 0) return py::none();
  TpixelData16* pixels = l.document->fDoc.layerPixels(layer);
  Tchannel* mask = pixels ? pixels->channel(channelUserMask) : nullptr;
  const uint8_t* samples = mask ? mask->rawPointer() : nullptr;
  if (!samples) return py::none();
  const bool wide = l.document->fDoc.fDataFormat == dataFormat16;
  py::array out(wide ? py::dtype::of<uint16_t>() : py::dtype::of<uint8_t>(), std::vector<py::ssize_t>{h, w});
  size_t bytes = size_t(w) * size_t(h) * (wide ? 2 : 1);
  if (mask->fPixelCount < size_t(w) * size_t(h)) return py::none();
  std::memcpy(out.mutable_data(), samples, bytes);
  return out;
}

}  // namespace

void bindPsd(py::module_& m) {
  py::class_<Layer>(m, "PsdLayer", "An ordinary layer of a Photoshop document.")
      .def_property_readonly("name", [](const Layer& l) { return l.layer->fName.str(); })
      .def_property_readonly("blend_mode", [](const Layer& l) { return keyText(l.layer->fBlendKey); })
      .def_property_readonly("opacity", [](const Layer& l) { return int(l.layer->fOpacity); })
      .def_property_readonly("visible", [](const Layer& l) { return !l.layer->isHidden(); })
      .def_property_readonly(
          "bbox",
          [](const Layer& l) {
            const TlRect& r = l.layer->fRect;
            return py::make_tuple(r.left, r.top, r.right, r.bottom);
          },
          "(left, top, right, bottom) in the document")
      .def_property_readonly(
          "pixels",
          [](const Layer& l) {
            if (l.layer->isEmpty()) return py::array(py::dtype::of<uint8_t>(), std::vector<py::ssize_t>{0, 0, 4});
            return readPart(l.document->path(), "#" + std::to_string(l.index), "");
          },
          "The layer's rectangle as an array, colour straight, with its transparency")
      .def_property_readonly(
          "mask", [](Layer& l) { return maskOf(l); }, "The layer's mask over its own rectangle, or None")
      .def("__repr__", [](const Layer& l) { return "<PsdLayer \"" + l.layer->fName.str() + "\">"; });

  py::class_<Psd>(m, "Psd", "A Photoshop document: its layers, its images, and edits saved whole.")
      .def(py::init<const py::object&>(), py::arg("path"))
      .def(py::init<int, int, int>(), py::arg("width"), py::arg("height"), py::arg("depth") = 8,
           "A new document with a white background.")
      .def_property_readonly("width", [](const Psd& p) { return p.fDoc.fImageWidth; })
      .def_property_readonly("height", [](const Psd& p) { return p.fDoc.fImageHeight; })
      .def_property_readonly("depth", [](const Psd& p) { return int(p.fDoc.fDepth); })
      .def_property_readonly("layers", &Psd::layers, py::keep_alive<0, 1>(), "The ordinary layers, bottom first")
      .def_property_readonly(
          "sets",
          [](Psd& p) {
            TstringArray names;
            p.fDoc.readLayerSetNames(names);
            std::vector<std::string> out;
            for (int i = 0; i < names.length(); ++i) out.push_back(names[i].str());
            return out;
          },
          "The outermost layer sets' names")
      .def(
          "composite", [](Psd& p) { return readPart(p.path(), "", ""); }, "The flattened image, colour straight")
      .def(
          "set_composite", [](Psd& p, const std::string& name) { return readPart(p.path(), "", name); },
          py::arg("name"), "The composite of a layer set")
      .def("add_layer", &Psd::addLayer, py::arg("name"), py::arg("pixels"),
           "A new layer on top, of the document's size and sample type")
      .def(
          "delete_layer",
          [](Psd& p, const std::string& name) {
            p.layerNamed(name);
            if (!p.fDoc.deleteLayer(Tstring(name.c_str()))) throw py::key_error("no ordinary layer \"" + name + "\"");
          },
          py::arg("name"))
      .def(
          "set_opacity",
          [](Psd& p, const std::string& name, int opacity) {
            if (opacity < 0 || opacity > 255) throw py::value_error("opacity is from 0 to 255");
            p.layerNamed(name);
            p.fDoc.setOpacity(Tstring(name.c_str()), uint32_t(opacity));
          },
          py::arg("name"), py::arg("opacity"))
      .def(
          "set_blend_mode",
          [](Psd& p, const std::string& name, const std::string& mode) {
            uint32_t key = keyOf(mode);
            p.layerNamed(name);
            p.fDoc.setBlendKey(Tstring(name.c_str()), key);
          },
          py::arg("name"), py::arg("mode"))
      .def(
          "add_set", [](Psd& p, const std::string& name) { p.fDoc.addNewLayerSet(Tstring(name.c_str())); },
          py::arg("name"))
      .def("save", &Psd::save, py::arg("path"), "Writes the document whole, under a temporary name first");
}

}  // namespace kelppy
