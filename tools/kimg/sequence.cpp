#include "sequence.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "commands.h"
#include "kelpimage/io/tformatcatalogue.h"
#include "util.h"

namespace kimg {

bool FramePattern::parse(const std::string& name, FramePattern& p) {
  size_t slash = name.rfind('/');
  size_t base = slash == std::string::npos ? 0 : slash + 1;
  size_t hash = name.find('#', base);
  if (hash != std::string::npos) {
    size_t end = name.find_first_not_of('#', hash);
    if (end == std::string::npos) end = name.size();
    if (name.find('#', end) != std::string::npos) return false;  // one run of marks only
    p.prefix = name.substr(0, hash);
    p.suffix = name.substr(end);
    p.width = end - hash > 1 ? int(end - hash) : 0;
    return true;
  }
  size_t percent = name.find('%', base);
  if (percent == std::string::npos) return false;
  size_t at = percent + 1;
  int width = 0;
  bool zero = at < name.size() && name[at] == '0';
  while (at < name.size() && std::isdigit(static_cast<unsigned char>(name[at]))) width = width * 10 + (name[at++] - '0');
  if (at >= name.size() || name[at] != 'd' || (width > 0 && !zero) || width > 18) return false;
  p.prefix = name.substr(0, percent);
  p.suffix = name.substr(at + 1);
  p.width = width > 1 ? width : 0;
  return true;
}

std::string FramePattern::name(long frame) const {
  char digits[32];
  std::snprintf(digits, sizeof digits, "%0*ld", width, frame);
  return prefix + digits + suffix;
}

bool FramePattern::frameOf(const std::string& file, long& frame) const {
  if (file.size() <= prefix.size() + suffix.size() || file.compare(0, prefix.size(), prefix) != 0 ||
      file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0)
    return false;
  std::string digits = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
  if (digits.empty() || digits.size() > 18 || !std::all_of(digits.begin(), digits.end(), ::isdigit)) return false;
  // Padded frames have exactly their width; unpadded ones no leading zero.
  if (width > 0 ? int(digits.size()) != width : (digits.size() > 1 && digits[0] == '0')) return false;
  frame = std::stol(digits);
  return true;
}

std::vector<long> FramePattern::onDisk() const {
  size_t slash = prefix.rfind('/');
  std::string dir = slash == std::string::npos ? "." : prefix.substr(0, slash == 0 ? 1 : slash);
  std::string lead = slash == std::string::npos ? "" : prefix.substr(0, slash + 1);
  std::vector<long> frames;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      long frame = 0;
      if (frameOf(lead + e->d_name, frame)) frames.push_back(frame);
    }
    closedir(d);
  }
  std::sort(frames.begin(), frames.end());
  return frames;
}

bool parseFrameRange(const std::string& text, std::vector<long>& frames, std::string& why) {
  long first = 0, last = 0, step = 1;
  char dash = 0, x = 0, rest = 0;
  int n = std::sscanf(text.c_str(), "%ld%c%ld%c%ld%c", &first, &dash, &last, &x, &step, &rest);
  bool ok = (n == 1) || (n == 3 && dash == '-') || (n == 5 && dash == '-' && x == 'x');
  if (n == 1) last = first;
  if (!ok || step < 1 || last < first || first < 0) {
    why = "--frames must be FIRST-LAST or FIRST-LASTxSTEP, FIRST no more than LAST, STEP at least 1: " + text;
    return false;
  }
  if ((last - first) / step >= 10000000) {
    why = "--frames names too many frames: " + text;
    return false;
  }
  frames.clear();
  for (long f = first; f <= last; f += step) frames.push_back(f);
  return true;
}

namespace {

// The frames a run converts: --frames, or those on disk.
int framesOf(const FramePattern& in, const std::string& pattern, const std::string& range, std::vector<long>& frames) {
  std::string why;
  if (!range.empty()) return parseFrameRange(range, frames, why) ? 0 : usage(why);
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
  FramePattern in, out;
  FramePattern::parse(o.in, in);
  if (!FramePattern::parse(o.out, out)) return usage("the output of a frame sequence needs a frame pattern too: " + o.out);
  if (o.frame >= 0) return usage("--frame takes one frame of one file; for sequences use --frames");
  std::vector<long> frames;
  if (int status = framesOf(in, o.in, s.frames, frames)) return status;
  // Everything the frames share is checked and made ready once, before the
  // threads start.
  FrameConverter run;
  if (int status = prepareConvert(o, run)) return status;
  TformatCatalogue::formats();  // the plug-ins found once, before the threads
  size_t threads = s.threads > 0 ? size_t(s.threads) : std::max(1u, std::thread::hardware_concurrency());
  threads = std::min(threads, frames.size());

  Progress progress(frames.size(), !s.quiet);
  std::atomic<size_t> next{0};
  std::atomic<bool> stop{false};
  std::mutex badLock;
  std::vector<long> bad;
  auto work = [&] {
    for (size_t i; !stop.load() && (i = next.fetch_add(1)) < frames.size();) {
      std::string from = in.name(frames[i]), to = out.name(frames[i]);
      takeReport("");  // what earlier frames of this thread left unsaid is not this frame's
      if (run(from, to) != 0) {
        std::lock_guard<std::mutex> hold(badLock);
        bad.push_back(frames[i]);
        if (!s.skipBad) stop = true;
        continue;
      }
      progress.done(from, to, s.verbose);
    }
  };
  std::vector<std::thread> pool;
  for (size_t t = 1; t < threads; ++t) pool.emplace_back(work);
  work();
  for (std::thread& t : pool) t.join();
  progress.end();
  if (bad.empty()) return 0;
  std::sort(bad.begin(), bad.end());
  std::string list;
  for (long f : bad) list += (list.empty() ? "" : ", ") + std::to_string(f);
  if (!s.skipBad) return fail(o.in, "stopped at a frame that failed (--skip-bad goes on): " + list);
  return fail(o.in, std::to_string(bad.size()) + " of " + std::to_string(frames.size()) + " frames failed: " + list);
}

int sequenceFiles(const std::string& pattern, const std::string& range, std::vector<std::string>& files) {
  FramePattern p;
  if (!FramePattern::parse(pattern, p)) {
    files.push_back(pattern);
    return 0;
  }
  std::vector<long> frames;
  if (int status = framesOf(p, pattern, range, frames)) return status;
  for (long f : frames) files.push_back(p.name(f));
  return 0;
}

}  // namespace kimg
