// The filtered zoom a batch of result lines at a time: the source lines the
// batch needs are fetched in order, in the caller's thread, then filtered
// across on several threads, then the result lines are summed down on
// several threads. Every result line is made from the same source lines,
// with the same arithmetic, as the line-at-a-time reader makes it, so the
// bytes are the same at any thread count.
#include <algorithm>
#include <cstring>

#include "kelpimage/base/tparallel.h"
#include "kelpimage/il/ilzoom.h"

namespace {
constexpr float kInv16384 = 0.00006103515625f;
constexpr int kMaxRows = 64;       // result lines in one batch
constexpr int kWindowLines = 256;  // source lines a batch aims to stay within

// Source lines the line-at-a-time reader has read once it has made `row`,
// when it had read `taken` before.
int takenAfter(const ILzoom* z, int row, int taken) {
  const ILtaps& t = z->yTaps[size_t(row)];
  return std::max(taken, t.first + t.count);
}

// The source line that tap `j` of `row` reads, when `taken` lines have been
// read: the line-at-a-time reader's ring holds the last ySupport of them.
int tapLine(const ILzoom* z, const ILtaps& t, int j, int taken) {
  int support = z->ySupport;
  int k = std::clamp(support - taken + t.first + j, 0, support - 1);
  return taken - support + k;
}

// Drops the filtered lines before `from`, keeping the rest at the window's start.
void slideWindow(ILzoom* z, int from) {
  ILzoomBatch& b = z->batch;
  int drop = std::clamp(from - b.windowFirst, 0, b.windowLines);
  size_t colorValues = size_t(z->resultW) * 4, depthValues = size_t(z->resultW);
  if (drop > 0 && drop < b.windowLines) {
    if (b.color)
      std::memmove(b.windowColor.data(), b.windowColor.data() + size_t(drop) * colorValues,
                   size_t(b.windowLines - drop) * colorValues * sizeof(int32_t));
    if (b.depth)
      std::memmove(b.windowDepth.data(), b.windowDepth.data() + size_t(drop) * depthValues,
                   size_t(b.windowLines - drop) * depthValues * sizeof(float));
  }
  b.windowFirst += drop;
  b.windowLines -= drop;
}

// Fetches source lines up to `end` (not included) into the raw buffers;
// returns how many came, and the code of a fetch that failed.
int fetchLines(ILzoom* z, int end, int& code) {
  ILzoomBatch& b = z->batch;
  int count = std::max(0, end - z->taken);
  size_t colorBytes = size_t(z->sourceW) * ((z->mode & 1) ? 8 : 4), depthValues = size_t(z->sourceW);
  if (b.color) b.rawColor.resize(size_t(count) * colorBytes);
  if (b.depth) b.rawDepth.resize(size_t(count) * depthValues);
  b.rawPresent.assign(size_t(count), 0);
  for (int i = 0; i < count; ++i) {
    uint8_t* line = nullptr;
    float* zline = nullptr;
    code = z->callback(z->arg, b.color ? &line : nullptr, b.depth ? &zline : nullptr);
    if (code) return i;
    if (line) std::memcpy(b.rawColor.data() + size_t(i) * colorBytes, line, colorBytes);
    if (zline) std::memcpy(b.rawDepth.data() + size_t(i) * depthValues, zline, depthValues * sizeof(float));
    b.rawPresent[size_t(i)] = uint8_t((line ? 1 : 0) | (zline ? 2 : 0));
  }
  return count;
}

// Filters `count` fetched lines across into the window's end.
void filterLines(ILzoom* z, int count) {
  ILzoomBatch& b = z->batch;
  size_t colorValues = size_t(z->resultW) * 4, depthValues = size_t(z->resultW);
  size_t colorBytes = size_t(z->sourceW) * ((z->mode & 1) ? 8 : 4), sourceW = size_t(z->sourceW);
  size_t lines = size_t(b.windowLines + count);
  if (b.color && b.windowColor.size() < lines * colorValues) b.windowColor.resize(lines * colorValues);
  if (b.depth && b.windowDepth.size() < lines * depthValues) b.windowDepth.resize(lines * depthValues);
  TparallelFor(size_t(count), z->threads, [&](size_t i) {
    size_t slot = size_t(b.windowLines) + i;
    if (b.color) {
      int32_t* out = b.windowColor.data() + slot * colorValues;
      if (b.rawPresent[i] & 1)
        ILfilteracross(z, b.rawColor.data() + i * colorBytes, out);
      else
        std::fill(out, out + colorValues, 0);
    }
    if (b.depth) {
      float* out = b.windowDepth.data() + slot * depthValues;
      if (b.rawPresent[i] & 2)
        ILfilterdepthacross(z, b.rawDepth.data() + i * sourceW, out);
      else
        std::fill(out, out + depthValues, 0.0f);
    }
  });
  b.windowLines += count;
}

// Sums result line `row` down from the window, `taken` lines having been read
// by then, into its place in the batch.
void sumRow(ILzoom* z, int row, int taken) {
  ILzoomBatch& b = z->batch;
  const ILtaps& taps = z->yTaps[size_t(row)];
  size_t at = size_t(row - b.firstRow);
  auto window = [&](int j) { return size_t(tapLine(z, taps, j, taken) - b.windowFirst); };
  if (b.color) {
    size_t values = size_t(z->resultW) * 4;
    std::vector<int64_t> sums(values, (z->mode & 2) ? 8192 : 2097152);
    for (int j = 0; j < taps.count; ++j) {
      int64_t weight = taps.count == 1 ? 16384 : taps.weights[size_t(j)];
      const int32_t* line = b.windowColor.data() + window(j) * values;
      for (size_t k = 0; k < values; ++k) sums[k] += int64_t(line[k]) * weight;
    }
    ILpackzoomcolor(z, sums.data(), b.colorRows.data() + at * size_t(z->colorBytes));
  }
  if (b.depth) {
    size_t values = size_t(z->resultW);
    float* out = b.depthRows.data() + at * values;
    if (taps.count == 1) {
      std::memcpy(out, b.windowDepth.data() + window(0) * values, values * sizeof(float));
      return;
    }
    std::vector<float> sums(values, 0.0f);
    for (int j = 0; j < taps.count; ++j) {
      float weight = float(taps.weights[size_t(j)]);
      const float* line = b.windowDepth.data() + window(j) * values;
      for (size_t i = 0; i < values; ++i) sums[i] += weight * line[i];
    }
    for (size_t i = 0; i < values; ++i) out[i] = sums[i] * kInv16384;
  }
}

// Makes the batch of result lines from z->row on; 0 or a code.
int makeBatch(ILzoom* z, bool color, bool depth) {
  ILzoomBatch& b = z->batch;
  // The lines read so far were filtered for what the first batch was asked:
  // later batches make the same, whatever less a line asks for.
  if (z->taken > 0) {
    if ((color && !b.color) || (depth && !b.depth)) return ILfail(FL_EARG);
    color = b.color;
    depth = b.depth;
  }
  b.color = color;
  b.depth = depth;
  const int first = z->row;
  // The rows of the batch, and the lines read by the time each is made.
  std::vector<int> taken;
  int lines = takenAfter(z, first, z->taken);
  int from = std::max(0, lines - z->ySupport);
  for (int row = first; row < z->resultH && row - first < kMaxRows; ++row) {
    int next = takenAfter(z, row, lines);
    if (row > first && next - from > std::max(kWindowLines, 2 * z->ySupport)) break;
    taken.push_back(lines = next);
  }
  if (b.windowFirst + b.windowLines != z->taken) b.windowLines = 0, b.windowFirst = z->taken;
  slideWindow(z, from);
  if (b.windowLines == 0) b.windowFirst = z->taken;
  int code = 0;
  int came = fetchLines(z, lines, code);
  filterLines(z, came);
  z->taken += came;
  // Only the rows whose lines all came are made; a failed fetch is the next row's failure.
  while (!taken.empty() && taken.back() > z->taken) taken.pop_back();
  if (taken.empty()) return ILfail(code ? code : IL_EDONE);
  b.firstRow = first;
  b.endRow = first + int(taken.size());
  if (color) b.colorRows.resize(taken.size() * size_t(z->colorBytes));
  if (depth) b.depthRows.resize(taken.size() * size_t(z->resultW));
  TparallelFor(taken.size(), z->threads, [&](size_t i) { sumRow(z, first + int(i), taken[i]); });
  return 0;
}
}  // namespace

int ILreadzoombatch(ILzoom* z, void* color, float* depth) {
  if (z->row >= z->resultH) return ILfail(IL_EDONE);
  ILzoomBatch& b = z->batch;
  if (z->row < b.firstRow || z->row >= b.endRow)
    if (int rc = makeBatch(z, color != nullptr, depth != nullptr)) return rc;
  // A batch holds what its first line was asked for.
  if ((color && !b.color) || (depth && !b.depth)) return ILfail(FL_EARG);
  size_t at = size_t(z->row - b.firstRow);
  if (color) std::memcpy(color, b.colorRows.data() + at * size_t(z->colorBytes), size_t(z->colorBytes));
  if (depth) std::memcpy(depth, b.depthRows.data() + at * size_t(z->resultW), size_t(z->depthBytes));
  z->row++;
  return 0;
}
