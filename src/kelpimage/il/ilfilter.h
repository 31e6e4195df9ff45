// Zoom filters: kernels sampled into a 512-entry running-sum table, kept on
// one process-wide list under the names "x@NAME" and "y@NAME".
#pragma once

#include <string>
#include <vector>

#include "kelpimage/il/ilinternal.h"

struct ILfilterdef {
  std::string name;  // list name; empty for a filter nobody can find again
  bool noclip = false;
  int refs = 0;
  float radius = 0.5f;
  float minusRadius = -0.5f;
  float table[512] = {};
};

// The pair of filters for `name` (x and y), made or found on the list. A
// program may change the blur values. Returns false, with flerrno 112, when
// neither a program nor a built-in kernel has that name: the pair is then a box.
bool ILloadfilterpair(const std::string& name, float& blurX, float& blurY, ILfilterdef*& x, ILfilterdef*& y);

// Takes a reference away; frees a filter with neither name nor references.
void ILdropfilter(ILfilterdef* filter);

// The directory of filter programs: "filters" in the work area.
std::string ILfilterdir();
