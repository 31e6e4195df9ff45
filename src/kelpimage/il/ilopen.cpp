// Opening, advancing and closing image handles; the control words; the
// conversion filters for files outside the format; the image search path.
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelpimage/il/chunk/flio.h"
#include "kelpimage/il/ilinternal.h"

uint32_t ilconfig = 0;

namespace {
constexpr uint32_t kLowBits = 0x7FF;
constexpr const char* kDefaultInFilter = "rstcvt -s";

// The filter texts are process-wide, as is the note that the default input
// filter has been chosen once.
struct Filters {
  std::mutex lock;
  std::string in, out;
  bool hasIn = false, hasOut = false;
  std::string inUse, outUse;
  bool defaultChosen = false;
};
Filters& filters() {
  static Filters f;
  return f;
}

bool isPipe(const char* name) { return name && std::strncmp(name, "pipe:", 5) == 0; }

const char* envText(const char* name) {
  const char* v = KelpGetEnv(name);
  return (v && *v) ? v : nullptr;
}

// Quotes a file name for /bin/sh so that any name reaches the command whole.
std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) {
    if (c == '\'')
      q += "'\\''";
    else
      q += c;
  }
  return q + "'";
}

// The form callback: only "FOR4" "CIMG" groups are images.
int ILformcheck(FLfile* file, uint32_t grouptag, uint32_t formtype) {
  if (formtype != IL_CIMG) return 0;
  if (grouptag == FL_FORM) return FL_EALIGN;
  return (file->group->gflags & FLG_ACCEPTED) ? FL_FORMFOUND : 1;
}

void closeImage(ILimage* image) {
  ILdropzoom(image);
  FLclose(image);
}

ILimage* openForWriting(ILimage* image, const char* mode) {
  FLfile* f = image;
  if (!isPipe(image->name) || (ilconfig & ILCONF_PIPEFILTER)) {
    if (!(ilconfig & ILCONF_NOOUTFILTER)) {
      std::string text;
      {
        Filters& fs = filters();
        std::lock_guard<std::mutex> guard(fs.lock);
        if (fs.hasOut)
          text = fs.out;
        else if (const char* env = envText("ILOCVT"))
          text = env;
        fs.outUse = text;
      }
      if (!text.empty()) f = FLfilter(text.c_str(), mode, f);
    }
    if (!f) {
      ILfail(IL_EOUTFILTER);
      return nullptr;
    }
  }
  if (int rc = FLbgnwgroup(f, FL_FOR4, IL_CIMG)) {
    FLclose(f);
    ILfail(rc);
    return nullptr;
  }
  image->width = 384;
  image->height = 288;
  image->prnum = image->prden = 1;
  image->type = ILT_COLOR | ILT_ALPHA;
  image->bytes = 1;
  bool stream = (image->flags & FL_PIPE) && !(image->flags & FL_PACKPIPE);
  image->compress = (stream && !(ilconfig & ILCONF_COMPRESS)) ? 0 : 1;
  image->ictl &= ~ILC_READ;
  image->version = 0x10001;
  image->dpi = 72.0f;
  return image;
}

// Puts back what the parse read ahead, in stream order, so that a filter
// sees the stream from its first byte.
void giveBackReadAhead(FLfile* f) {
  FLgroup* g = f->group;
  uint8_t bytes[12];
  size_t n = 0;
  if (g->gflags & FLG_AHEAD) {
    std::memcpy(bytes, &g->gtag, 4);
    kelp::putBE32(bytes + 4, g->gsize);
    n = 8;
    if (g->gflags & FLG_FORMAHEAD) {
      kelp::putBE32(bytes + 8, g->gnextform);
      n = 12;
    }
    g->gtag = g->gsize = 0;
  }
  g->gflags &= ~0x41FF0000u;
  FLunread(f, bytes, n);
}

// Whether a program of that name is on the search path, as the shell would find it.
bool onPath(const std::string& program) {
  const char* path = KelpGetEnv("PATH");
  std::string dirs = path ? path : "/usr/bin:/bin";
  for (size_t at = 0; at <= dirs.size();) {
    size_t colon = dirs.find(':', at);
    if (colon == std::string::npos) colon = dirs.size();
    std::string dir = dirs.substr(at, colon - at);
    std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
    if (::access(candidate.c_str(), X_OK) == 0) return true;
    at = colon + 1;
  }
  return false;
}

// The input converter for a file that is not in the format: the caller's
// text, else ILICVT, else the default converter when it is installed. Empty
// when there is none. `byName` says whether it runs as a command given the
// file's name ("CONVERTER NAME stdout"), which is the default converter's
// way, and every converter's once the default has been chosen; otherwise it
// filters the stream.
std::string chooseInFilter(bool& byName) {
  Filters& fs = filters();
  std::lock_guard<std::mutex> guard(fs.lock);
  std::string text;
  if (fs.hasIn)
    text = fs.in;
  else if (const char* env = envText("ILICVT"))
    text = env;
  if (text.empty()) {
    std::string program = kDefaultInFilter;
    program = program.substr(0, program.find(' '));
    if (!onPath(program)) return {};
    text = kDefaultInFilter;
    fs.defaultChosen = true;
  }
  fs.inUse = text;
  byName = fs.defaultChosen;
  return text;
}

// Looks for the first image form; true when found.
bool findImageForm(ILimage* image, int& parsed) {
  FLsetform(image, ILformcheck);
  parsed = FLparse(image);
  if (parsed != FL_FORMFOUND) return false;
  FLsetform(image, nullptr);
  image->ictl = ILC_READ;
  return true;
}

// A file that is not in the format goes through one converter, once; what
// the converter gives must be in the format. Whatever the converter's shell
// says goes nowhere: a converter that fails is the open's error code.
ILimage* openForReading(ILimage* image, const char* mode) {
  int parsed = 0;
  if (findImageForm(image, parsed)) return image;
  if (parsed != FL_ENOTIFF && parsed != FL_ESHORT) {
    int reported = flerrno;
    closeImage(image);
    ILfail(reported ? IL_EPARSE : IL_ENOIMAGE);
    return nullptr;
  }
  bool byName = false;
  std::string command = chooseInFilter(byName);
  if (command.empty()) {
    // Nothing can convert it: say what the bytes are not.
    closeImage(image);
    ILfail(parsed);
    return nullptr;
  }
  FLquietchildren quiet;
  if (byName && !(image->flags & (FL_PIPE | FL_STDIO | FL_FILTERED)) && !isPipe(image->name)) {
    // The file can be opened again by name: the converter reads it itself.
    std::string pipe = "pipe:" + command + " " + shellQuote(image->name) + " stdout";
    if (!FLreopen(pipe.c_str(), mode, image)) {
      ILfail(IL_EINFILTER);
      return nullptr;
    }
  } else {
    // A filter of the stream. The default converter, already streaming,
    // learns the format only from the name's extension ("-s" becomes "-sf EXT").
    if (const char* dot = std::strchr(image->name, '.'); dot && dot[1] && command == kDefaultInFilter)
      command += "f " + std::string(dot + 1);
    giveBackReadAhead(image);
    if (!FLfilter(command.c_str(), mode, image)) {
      ILfail(IL_EINFILTER);
      return nullptr;
    }
  }
  if (findImageForm(image, parsed)) return image;
  closeImage(image);
  ILfail(IL_EINFILTER);
  return nullptr;
}

ILimage* openWorker(ILimage* image, const char* mode) {
  image->ictl &= ~kLowBits;
  ILinitfields(image);
  return mode[0] == 'r' ? openForReading(image, mode) : openForWriting(image, mode);
}

// The image search path, rebuilt when the work directory changes. Paths
// replaced here stay allocated, since another thread may still be searching one.
// One search path per work directory, for the kPaths most recent ones: going
// back and forth between directories makes no new paths, and a path handed
// to an open stays valid until that many other directories have come since.
struct PathCache {
  std::mutex lock;
  std::list<std::pair<std::string, FLpath*>> paths;  // the most recent last
  ~PathCache() {
    for (auto& entry : paths) FLfreepath(entry.second);
  }
};
constexpr size_t kPaths = 256;
PathCache& pathCache() {
  static PathCache c;
  return c;
}

// Runs `open` with the image path as the thread's search path.
template <class Fn>
ILimage* withImagePath(Fn open) {
  FLpath* old = FLswappath(ILgetpath());
  ILimage* image = open();
  FLswappath(old);
  return image;
}
}  // namespace

void ILdropzoom(ILimage* image) {
  ILdelzoom(image->zoom);
  image->zoom = nullptr;
}

FLpath* ILgetpath() {
  std::string work = FLgetwork(nullptr);
  PathCache& c = pathCache();
  std::lock_guard<std::mutex> guard(c.lock);
  auto known = std::find_if(c.paths.begin(), c.paths.end(), [&](const auto& e) { return e.first == work; });
  if (known != c.paths.end()) {
    c.paths.splice(c.paths.end(), c.paths, known);
    return c.paths.back().second;
  }
  std::string dirs = ".;" + work + "/image;" + work + "/tex";
  FLpath* path = FLbuildpath(dirs.c_str());
  if (!path) return nullptr;
  c.paths.emplace_back(work, path);
  if (c.paths.size() > kPaths) {
    FLfreepath(c.paths.front().second);
    c.paths.pop_front();
  }
  return path;
}

static ILimage* unguardedOpen(const char* name, const char* mode) {
  if (!name || !mode) {
    ILfail(FL_EARG);
    return nullptr;
  }
  return withImagePath([&]() -> ILimage* {
    auto* image = static_cast<ILimage*>(FLsopen(name, mode, sizeof(ILimage)));
    if (!image) return nullptr;
    image = openWorker(image, mode);
    if (image) FLinitlist(&image->tilelist);
    return image;
  });
}

static ILimage* unguardedReopen(const char* name, const char* mode, ILimage* image) {
  if (!image) return ILopen(name, mode);
  if (!name || !mode) {
    ILfail(FL_EARG);
    return nullptr;
  }
  ILdropzoom(image);
  return withImagePath([&]() -> ILimage* {
    if (!FLreopen(name, mode, image)) return nullptr;
    return openWorker(image, mode);
  });
}

static int unguardedClose(ILimage* image) {
  if (!image) return ILfail(FL_EARG);
  ILdropzoom(image);
  return FLclose(image);
}

static int unguardedNext(ILimage* image) {
  flerrno = 0;
  image->ictl &= ~kLowBits;
  // Close every group inside the image, then the image's own group.
  for (;;) {
    uint32_t form = image->group->gform;
    bool inner = form != 0 && form != IL_CIMG;
    FLendput(image);
    FLendwgroup(image);
    if (!inner) break;
  }
  ILdropzoom(image);
  if (image->ictl & ILC_READ) {
    FLsetform(image, ILformcheck);
    if (FLparse(image) == FL_FORMFOUND) {
      FLsetform(image, nullptr);
      return 0;
    }
    flerrno = 0;
    return IL_ENOIMAGE;
  }
  return FLbgnwgroup(image, FL_FOR4, IL_CIMG);
}

void ILinitio(ILimage* image) {
  uint32_t type = image->type;
  if (image->ictl & ILC_RAWCHANNELS) {
    image->bitmask = (type & ILT_COLOR) ? 7 : ((type & ILT_BLACK) ? 0 : 1);
    if (type & ILT_ALPHA) image->bitmask = image->bitmask * 2 + 1;
    image->channels = flbitset[image->bitmask & 0xFF];
  } else {
    image->bitmask = (type & ILT_COLOR) ? 14 : ((type & ILT_BLACK) ? 0 : 4);
    if (type & ILT_ALPHA) image->bitmask |= 1;
    image->channels = 4;
  }
  bool narrow = (image->ictl & ILC_READ) && !(image->ictl & ILC_DEEP);
  image->pwidth = narrow ? image->channels : image->bytes * image->channels;
  image->lwidth = image->width * image->pwidth;
}

void ILconfig(uint32_t bits, int on) {
  if (on)
    ilconfig |= bits;
  else
    ilconfig &= ~bits;
}

uint32_t ILctrl(ILimage* image, uint32_t bits, int on) {
  uint32_t mask = ~0xFFFFu;
  if (image->ictl & ILC_BITMAP) mask &= ~(ILC_RAWCHANNELS | ILC_DEEP);
  bits &= mask;
  if (on)
    image->ictl |= bits;
  else
    image->ictl &= ~bits;
  return bits;
}

static const char* setFilter(const char* text, std::string& store, bool& has) {
  Filters& fs = filters();
  std::lock_guard<std::mutex> guard(fs.lock);
  has = text != nullptr;
  store = text ? text : "";
  return has ? store.c_str() : nullptr;
}

const char* ILinfilter(const char* text) { return setFilter(text, filters().in, filters().hasIn); }
const char* ILoutfilter(const char* text) { return setFilter(text, filters().out, filters().hasOut); }

// The entry points: no exception leaves the library; running out of memory
// is FL_ENOMEM, anything else unexpected FL_EFIT.
ILimage* ILopen(const char* name, const char* mode) {
  return ILguardpointer([&] { return unguardedOpen(name, mode); });
}

ILimage* ILreopen(const char* name, const char* mode, ILimage* image) {
  return ILguardpointer([&] { return unguardedReopen(name, mode, image); });
}

int ILclose(ILimage* image) {
  return ILguard([&] { return unguardedClose(image); });
}

int ILnext(ILimage* image) {
  return ILguard([&] { return unguardedNext(image); });
}
