// Photoshop documents in kimg: opening one with a clear message, and the
// lines of its flattened image, of one layer or of one alpha channel.
#pragma once

#include <memory>
#include <string>

#include "kelpimage/photoshop/tpsdfile.h"
#include "lines.h"

namespace kimg {

// 0, or the exit status after a message naming `path`.
int psdOpen(const std::string& path, zkPhotoshop::TpsdFile& doc);

// What of a document to convert: the flattened image by default, else a
// layer by name ("#N" for the N-th ordinary layer in file order, from 0),
// an alpha channel by number, or a layer set's composite by name.
struct PsdPart {
  std::string layer;
  int alpha = -1;
  std::string set;  // a layer set's composite
};

// The part's lines at its own size (a layer's rectangle), 1 or 2 bytes a
// channel as the document has them. Null, with the reason, when it cannot
// be read.
// Whether the options change (or save) a document, and doing so.
struct PsdOptions;
bool psdEditing(const PsdOptions& options);
int psdEdit(const PsdOptions& options);

std::unique_ptr<Lines> psdLines(const std::string& path, const PsdPart& part, bool topdown, std::string& why);

}  // namespace kimg
