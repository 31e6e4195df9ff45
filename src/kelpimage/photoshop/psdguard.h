// The one place where a document's read operations turn failures into
// results: damaged bytes, the two plain-text throws and exhausted memory.
#pragma once

#include <new>
#include <stdexcept>

#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdfile.h"
#include "kelpimage/photoshop/tpsdwarning.h"

namespace zkPhotoshop {

template <class Op, class R>
R TpsdFile::guarded(Op&& op, R failed) {
  fLastError = Tstring();
  try {
    return op();
  } catch (const TpsdDamaged& d) {
    fail(Tstring(d.reason));
  } catch (const char* text) {
    fail(Tstring(text));
  } catch (const std::bad_alloc&) {
    theWarnings().addWarning(warnNoMemory, fPath.baseName(), Tstring());
    fail(Tstring("out of memory"));
  } catch (const std::length_error&) {
    theWarnings().addWarning(warnNoMemory, fPath.baseName(), Tstring());
    fail(Tstring("out of memory"));
  }
  return failed;
}

}  // namespace zkPhotoshop
