// What the conversions through IFF share inside the library.
#pragma once

#include <string>
#include <vector>

struct PxfCapSetting;
struct PxfFormat;

namespace kelpconvert {

// A report of the conversions, to the calling thread's catcher or the
// host's error handler.
void report(const std::string& text);

// The capability settings of an output of `format`: the host's options and
// the picture's resolution `dpi`, null-terminated; each from
// PXF_cap_setting_alloc, the caller deletes them.
std::vector<PxfCapSetting*> outputSettings(const PxfFormat* format, float dpi);

}  // namespace kelpconvert
