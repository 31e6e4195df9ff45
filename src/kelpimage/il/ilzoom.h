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

// The state of the reader that makes result lines a batch at a time, its
// source lines filtered across and its rows summed on several threads.
struct ILzoomBatch {
  bool color = false, depth = false;  // what the batch was made of
  int firstRow = 0, endRow = 0;       // the result rows it holds
  std::vector<uint8_t> colorRows;
  std::vector<float> depthRows;
  // Filtered source lines from `windowFirst` on, `windowLines` of them.
  int windowFirst = 0, windowLines = 0;
  std::vector<int32_t> windowColor;
  std::vector<float> windowDepth;
  // Source lines as fetched, before filtering.
  std::vector<uint8_t> rawColor;
  std::vector<float> rawDepth;
  std::vector<uint8_t> rawPresent;  // per line: 1 colour came, 2 depth came
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

  // 1: lines are made one at a time in the caller's thread; otherwise a
  // batch at a time on this many threads (0: one a core).
  uint32_t threads = 1;
  ILzoomBatch batch;
};

// The line arithmetic, the same for either reader: a source line filtered
// across into 4 values a result pixel, a depth line likewise, and the sums of
// a result line packed into its pixels.
void ILfilteracross(const ILzoom* z, const uint8_t* line, int32_t* out);
void ILfilterdepthacross(const ILzoom* z, const float* line, float* out);
void ILpackzoomcolor(const ILzoom* z, const int64_t* sums, uint8_t* out);

// The next result line of a filtered zoom, from a batch made on z->threads threads.
int ILreadzoombatch(ILzoom* z, void* color, float* depth);

// Builds the taps of one axis; returns the support (largest tap count).
int ILbuildtaps(std::vector<ILtaps>& taps, const ILfilterdef* filter, int n, int m, float blur, float offset, float low,
                float high);
