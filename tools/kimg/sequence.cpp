#include "sequence.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "commands.h"
#include "kelpimage/base/tparallel.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "kelpimage/naming/tframepattern.h"
#include "util.h"

namespace kimg {

namespace {

// The frames a run converts: --frames, or those on disk.
int framesOf(const TframePattern& in, const std::string& pattern, const std::string& range, std::vector<long>& frames) {
  std::string why;
  if (!range.empty()) return TframePattern::parseRange(range, frames, why) ? 0 : usage(why);
  frames = in.onDisk();
  if (frames.empty()) return fail(pattern, "no frames of this pattern exist");
  return 0;
}

// "1:05" for seconds.
std::string clock(double seconds) {
  long s = long(seconds + 0.5);
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
  return text;
}

// What the run says of itself while it goes: a progress line on a terminal.
class Progress {
 public:
  Progress(size_t total, bool show) : fTotal(total), fShow(show && isatty(STDERR_FILENO)) {}
  void done(const std::string& in, const std::string& out, bool verbose) {
    std::lock_guard<std::mutex> hold(fLock);
    ++fDone;
    if (verbose) std::fprintf(stderr, "%s%s -> %s\n", fShow ? "\r\033[K" : "", in.c_str(), out.c_str());
    if (!fShow) return;
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - fStart).count();
    double rate = elapsed > 0 ? double(fDone) / elapsed : 0.0;
    double left = rate > 0 ? double(fTotal - fDone) / rate : 0.0;
    std::fprintf(stderr, "\r\033[Kframes %zu/%zu  %.1f frames/s  %s left", fDone, fTotal, rate, clock(left).c_str());
    std::fflush(stderr);
  }
  void end() {
    if (fShow) std::fprintf(stderr, "\r\033[K");
  }

 private:
  std::mutex fLock;
  size_t fTotal, fDone = 0;
  bool fShow;
  std::chrono::steady_clock::time_point fStart = std::chrono::steady_clock::now();
};

}  // namespace

int convertSequence(const ConvertOptions& o, const SequenceOptions& s) {
  TframePattern in, out;
  TframePattern::parse(o.in, in);
  if (!TframePattern::parse(o.out, out))
    return usage("the output of a frame sequence needs a frame pattern too: " + o.out);
  if (o.frame >= 0) return usage("--frame takes one frame of one file; for sequences use --frames");
  std::vector<long> frames;
  if (int status = framesOf(in, o.in, s.frames, frames)) return status;
  // Everything the frames share is checked and made ready once, before the
  // threads start.
  // The threads go to frames first: several frames at once keep every
  // thread busy with a whole conversion, so each frame then has one.
  const unsigned threads = TthreadsFor(unsigned(std::max(s.threads, 0)), SIZE_MAX);
  const size_t atOnce = std::max<size_t>(1, std::min<size_t>(frames.size(), threads));
  FrameConverter run;
  if (int status = prepareConvert(o, int(std::max<size_t>(1, threads / atOnce)), run)) return status;
  TformatCatalogue::formats();  // the plug-ins found once, before the threads
  Progress progress(frames.size(), !s.quiet);
  std::atomic<bool> stop{false};
  std::mutex badLock;
  std::vector<long> bad;
  // A frame a piece of the library's parallel loop, on --threads threads (0: a core each).
  TparallelFor(frames.size(), threads, [&](size_t i) {
    if (stop) return;
    std::string from = in.name(frames[i]), to = out.name(frames[i]);
    takeReport("");  // what earlier frames of this thread left unsaid is not this frame's
    if (run(from, to) != 0) {
      std::lock_guard<std::mutex> hold(badLock);
      bad.push_back(frames[i]);
      if (!s.skipBad) stop = true;
      return;
    }
    progress.done(from, to, s.verbose);
  });
  progress.end();
  if (bad.empty()) return 0;
  std::sort(bad.begin(), bad.end());
  std::string list;
  for (long f : bad) list += (list.empty() ? "" : ", ") + std::to_string(f);
  if (!s.skipBad) return fail(o.in, "stopped at a frame that failed (--skip-bad goes on): " + list);
  return fail(o.in, std::to_string(bad.size()) + " of " + std::to_string(frames.size()) + " frames failed: " + list);
}

int sequenceFiles(const std::string& pattern, const std::string& range, std::vector<std::string>& files) {
  TframePattern p;
  if (!TframePattern::parse(pattern, p)) {
    files.push_back(pattern);
    return 0;
  }
  std::vector<long> frames;
  if (int status = framesOf(p, pattern, range, frames)) return status;
  for (long f : frames) files.push_back(p.name(f));
  return 0;
}

}  // namespace kimg
