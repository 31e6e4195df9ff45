// Photoshop documents in kimg: opening one with a clear message, and
// editing one.
#pragma once

#include <string>

#include "kelpimage/photoshop/tpsdfile.h"

namespace kimg {

// 0, or the exit status after a message naming `path`.
int psdOpen(const std::string& path, zkPhotoshop::TpsdFile& doc);

// Whether the options change (or save) a document, and doing so.
struct PsdOptions;
bool psdEditing(const PsdOptions& options);
int psdEdit(const PsdOptions& options);

}  // namespace kimg
