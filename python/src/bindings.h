// What the parts of the Python module share: the error it raises, and
// NumPy's sample types beside the library's.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <stdexcept>
#include <string>

#include "kelpimage/io/timageinfo.h"

namespace kelppy {

namespace py = pybind11;

// Raised in Python as kelpimage.Error, an OSError: the file's name and the reason.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

py::dtype dtypeOf(TsampleType type);
// The sample type of a NumPy dtype; TypeError for one the library has not.
TsampleType sampleTypeOf(const py::dtype& dtype);
// An array of height x width x channels of `type`, C-contiguous.
py::array newPicture(int32_t height, int32_t width, int channels, TsampleType type);
// The picture an array describes: (height, width) grey, or (height, width,
// channels) with 1 to 4 channels; ValueError otherwise.
TimageInfo specOf(const py::array& array, bool premultiplied);
// The array as a C-contiguous array of its own sample type.
py::array contiguous(const py::array& array);
// A description of a picture as a dict.
py::dict describe(const TimageInfo& spec);

void bindReader(py::module_& m);
void bindWriter(py::module_& m);
void bindPsd(py::module_& m);

}  // namespace kelppy
