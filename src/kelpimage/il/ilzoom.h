// The zoom record: parameters, weight tables, the ring of filtered lines.
#pragma once

#include <string>
#include <vector>

#include "kelpimage/il/ilfilter.h"

// The taps of one result sample: `count` source samples from `first`, with
// weights that sum to 16384; a single tap has no weights.
struct ILtaps {
  int count = 0;
  int first = 0;
  std::vector<int32_t> weights;
  int64_t absSum = 0;  // of the weights: bounds what a sum of samples can reach
};

struct ILzoom {
  std::string name;
  bool bound = false;
  int sourceW = 0, sourceH = 0, resultW = 0, resultH = 0;
  int mode = 0;
  float blurX = 0, blurY = 0;
  float offsetX = 0.5f, offsetY = 0.5f;
  float margin[4] = {};  // x low, y low, x high, y high
  int depthBytes = 0, colorBytes = 0;
  int identity = 0;
  ILfilterdef* activeX = nullptr;
  ILfilterdef* activeY = nullptr;
  ILfilterdef* loadedX = nullptr;
  ILfilterdef* loadedY = nullptr;
  bool magnified = false;  // what the "auto" choice was made for

  std::vector<uint8_t> colorLine;  // one result line, 8 bytes a pixel at most
  std::vector<float> depthLine;
  std::vector<int> xmap;
  int lastLine = -1;
  int row = 0;
  int taken = 0;
  int target = 0;
  std::vector<ILtaps> xTaps, yTaps;
  int xSupport = 0, ySupport = 0;
  // The last filtered source lines, 4 values a result pixel, in a ring: the
  // oldest at `ringHead`, the newest just before it.
  std::vector<std::vector<int32_t>> ringColor;
  std::vector<std::vector<float>> ringDepth;
  size_t ringHead = 0;
  std::vector<int64_t> accColor;
  std::vector<float> accDepth;

  void* arg = nullptr;
  ILlinefn callback = nullptr;
};

// Builds the taps of one axis; returns the support (largest tap count).
int ILbuildtaps(std::vector<ILtaps>& taps, const ILfilterdef* filter, int n, int m, float blur, float offset, float low,
                float high);
