// The Netpbm plug-in, on libnetpbm: PBM, PGM, PPM and PAM, plain and raw,
// with maxvals up to 65535 (read as 8 bits up to 255, as 16 bits above);
// written raw, as the target's extension says: ".ppm" colour, ".pgm" grey,
// ".pbm" black and white (at half the range), ".pam" PAM, keeping alpha;
// other names get PGM for grey, PPM for colour, and PAM where there is
// alpha. PPM, PGM and PBM cannot hold alpha, and leave it out.
// libnetpbm reports errors through pm_error, which longjmps to the buffer
// we give it: every call into it stands behind a setjmp in a function that
// holds nothing needing destruction.
#include <strings.h>
#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

extern "C" {
#include <netpbm/pam.h>
}

#include "plugin_util.h"

using pxfplugin::fail;

namespace {

constexpr int kMaxWidth = 65535;

// libnetpbm's last error text: written by its handler, which runs only
// inside netpbm() below, under gNetpbm, and copied to the file's state there.
char gMessage[256];

void onError(const char* text) { std::snprintf(gMessage, sizeof gMessage, "%s", text); }
void onMessage(const char*) {}

// libnetpbm's process-wide set-up, once.
void startNetpbm() {
  static bool started = [] {
    pm_init("kelpimage", 0);
    pm_setusererrormsgfn(onError);
    pm_setusermessagefn(onMessage);
    return true;
  }();
  (void)started;
}

struct State {
  FILE* file = nullptr;
  std::vector<uint8_t> bytes;  // reading: the file, read once
  bool writing = false;
  struct pam pam {};
  tuple* row = nullptr;
  int colors = 0;  // of the framework's picture
  bool matte = false;
  int outColors = 0;  // of the file written: 3, or 1 for grey and black and white
  bool outMatte = false;
  bool bits1 = false;  // black and white
  unsigned int opacityPlane = 0;
  int32_t outBits = 8;       // of the framework's samples
  int32_t next = 0;          // rows handled, from the top
  jmp_buf* saved = nullptr;  // the jump buffer libnetpbm had before ours
  char message[256] = {};    // libnetpbm's text of the last failure, or empty
};

void release(State* s) {
  if (s->row) pnm_freepamrow(s->row);
  if (s->file) std::fclose(s->file);
  delete s;
}

// How much of struct pam we use, through the opacity fields (libnetpbm's
// PAM_STRUCT_SIZE does this through a null pointer).
constexpr int kPamSize = int(offsetof(struct pam, opacity_plane) + sizeof(pam::opacity_plane));

// libnetpbm keeps its jump buffer and error handler for the process: one
// call into it at a time.
std::mutex gNetpbm;

// Runs `call` with libnetpbm's errors caught; false after one (its text in
// the state's message). The caller's jump buffer, if any, is put back either way.
bool netpbm(State* s, void (*call)(State*)) {
  std::lock_guard<std::mutex> hold(gNetpbm);
  gMessage[0] = '\0';
  s->message[0] = '\0';
  jmp_buf jump;
  if (setjmp(jump)) {
    pm_setjmpbuf(s->saved);
    std::memcpy(s->message, gMessage, sizeof s->message);
    return false;
  }
  pm_setjmpbufsave(&jump, &s->saved);
  call(s);
  pm_setjmpbuf(s->saved);
  return true;
}

void readHeader(State* s) { pnm_readpaminit(s->file, &s->pam, kPamSize); }
void readNext(State* s) { pnm_readpamrow(&s->pam, s->row); }
void writeHeader(State* s) { pnm_writepaminit(&s->pam); }
void writeNext(State* s) { pnm_writepamrow(&s->pam, s->row); }

int recognise(const uint8_t* b, size_t n) {
  return n >= 3 && b[0] == 'P' && b[1] >= '1' && b[1] <= '7' &&
         (b[2] == ' ' || b[2] == '\n' || b[2] == '\r' || b[2] == '\t' || b[2] == '#');
}

// What libnetpbm would refuse of a tuple type with this depth and maxval.
std::string tupleTypeProblem(const std::string& type, unsigned long depth, unsigned long maxval) {
  if (type.rfind("BLACKANDWHITE", 0) == 0 && maxval != 1) return "a BLACKANDWHITE PAM picture needs a MAXVAL of 1";
  unsigned long least = type == "RGB_ALPHA"                                            ? 4
                        : type == "RGB"                                                ? 3
                        : (type == "GRAYSCALE_ALPHA" || type == "BLACKANDWHITE_ALPHA") ? 2
                                                                                       : 1;
  if (depth < least) return "the PAM header's DEPTH is too small for its tuple type";
  return {};
}

// A PAM header, checked in full before libnetpbm parses it: libnetpbm
// leaks what it holds of a PAM header on every fault it reports there.
// Empty when the header is sound or the file is no PAM; the file is back at
// its start either way.
std::string pamHeaderProblem(FILE* file) {
  char magic[3] = {};
  size_t n = std::fread(magic, 1, 3, file);
  std::string problem;
  if (n >= 2 && magic[0] == 'P' && magic[1] == '7') {
    unsigned long width = 0, height = 0, depth = 0, maxval = 0;
    std::string tupleType;
    problem = n < 3 || magic[2] != '\n' ? "not a PAM header" : "the PAM header has no ENDHDR line";
    char line[256];
    for (int lines = 0; n == 3 && magic[2] == '\n' && lines < 1000 && std::fgets(line, sizeof line, file); ++lines) {
      if (!std::strchr(line, '\n')) {
        problem = "a PAM header line is too long";
        break;
      }
      char word[16] = {};
      unsigned long value = 0;
      char extra = 0;
      if (line[0] == '#' || std::sscanf(line, "%15s", word) != 1) continue;
      std::string w = word;
      if (w == "ENDHDR") {
        bool sizes = width >= 1 && width <= kMaxWidth && height >= 1 && height <= 0x7FFFFFFF && depth >= 1 &&
                     depth <= 16 && maxval >= 1 && maxval <= 65535;
        problem = sizes ? tupleTypeProblem(tupleType, depth, maxval)
                        : "the PAM header's WIDTH, HEIGHT, DEPTH or MAXVAL is missing or out of range";
        break;
      }
      if (w == "TUPLTYPE") {
        // The text after the word; several lines join with a space.
        std::string text = line + std::strspn(line, " \t") + 8;
        text = text.substr(text.find_first_not_of(" \t") == std::string::npos ? text.size()
                                                                              : text.find_first_not_of(" \t"));
        text = text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
        if (text.empty()) {
          problem = "a PAM header's TUPLTYPE line has no tuple type";
          break;
        }
        tupleType += (tupleType.empty() ? "" : " ") + text;
        if (tupleType.size() > 255) {
          problem = "the PAM header's tuple type is too long";
          break;
        }
        continue;
      }
      bool number = std::sscanf(line, "%15s %lu %c", word, &value, &extra) == 2 && value <= 0x7FFFFFFF;
      unsigned long* field = w == "WIDTH"    ? &width
                             : w == "HEIGHT" ? &height
                             : w == "DEPTH"  ? &depth
                             : w == "MAXVAL" ? &maxval
                                             : nullptr;
      if (!field || !number) {
        problem =
            "the PAM header line \"" + std::string(line, std::strcspn(line, "\r\n")) + "\" is not one it may hold";
        break;
      }
      *field = value;
    }
  }
  std::rewind(file);
  return problem;
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  startNetpbm();
  auto* s = new State;
  // libnetpbm reads a stdio file, which is looked at twice: the file is
  // read into memory once.
  if (!pxfplugin::readWhole(in, s->bytes, error, size)) {
    release(s);
    return nullptr;
  }
  s->file = s->bytes.empty() ? nullptr : fmemopen(s->bytes.data(), s->bytes.size(), "rb");
  if (!s->file) {
    fail(error, size, "%s", s->bytes.empty() ? "the file is empty" : std::strerror(errno));
    release(s);
    return nullptr;
  }
  std::string problem = pamHeaderProblem(s->file);
  if (!problem.empty()) {
    fail(error, size, "%s", problem.c_str());
    release(s);
    return nullptr;
  }
  if (!netpbm(s, readHeader)) {
    fail(error, size, "%s", s->message[0] ? s->message : "not a Netpbm picture");
    release(s);
    return nullptr;
  }
  const struct pam& p = s->pam;
  if (p.width < 1 || p.height < 1 || p.width > kMaxWidth || p.depth < 1 || p.depth > 16) {
    fail(error, size, "picture of %d x %d pixels, %u samples each, is out of range", p.width, p.height, p.depth);
    release(s);
    return nullptr;
  }
  // Raw black and white pictures hold 8 pixels a byte, and nothing less.
  if (!pxfplugin::sizeAllowed(uint64_t(p.width), uint64_t(p.height), in, 8, error, size)) {
    release(s);
    return nullptr;
  }
  int haveOpacity = 0;
  pnm_getopacity(&s->pam, &haveOpacity, &s->opacityPlane);
  s->matte = haveOpacity != 0 && s->opacityPlane < p.depth;
  s->colors = (p.depth - (s->matte ? 1 : 0)) >= 3 ? 3 : 1;
  s->outBits = p.maxval > 255 ? 16 : 8;
  s->row = pnm_allocpamrow(&s->pam);
  pxfplugin::describePicture(image, p.width, p.height, PXF_TOP_DOWN, s->colors, s->matte, s->outBits);
  image->storedBits = int32_t(pm_maxvaltobits(int(p.maxval)));
  image->compression = p.format == PAM_FORMAT                                                         ? "PAM"
                       : (p.format == PPM_FORMAT || p.format == PGM_FORMAT || p.format == PBM_FORMAT) ? "plain"
                                                                                                      : "raw";
  *frames = 1;
  return s;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->pam.height - 1 - row != s->next) return fail(error, size, "rows are read from the top down only");
  if (!netpbm(s, readNext)) return fail(error, size, "%s", s->message[0] ? s->message : "the file ends early");
  s->next++;
  // Samples scaled from the file's maxval to the full 8 or 16 bits, rounded.
  sample maxval = s->pam.maxval, full = s->outBits == 16 ? 65535 : 255;
  auto put = [&](int channel, unsigned plane) {
    tuple* in = s->row;
    int width = s->pam.width;
    if (s->outBits == 8 && maxval == full) {  // the common case, without scaling
      for (int x = 0; x < width; ++x)
        *pxfplugin::sampleAt<uint8_t>(channels[channel], stride, x) = uint8_t(in[x][plane]);
      return;
    }
    for (int x = 0; x < width; ++x) {
      sample v = in[x][plane];
      unsigned long scaled = maxval == full ? v : (v * full + maxval / 2) / maxval;
      if (s->outBits == 16)
        *pxfplugin::sampleAt<uint16_t>(channels[channel], stride, x) = uint16_t(scaled);
      else
        *pxfplugin::sampleAt<uint8_t>(channels[channel], stride, x) = uint8_t(scaled);
    }
  };
  unsigned colourPlanes[3] = {0, 1, 2};
  for (int c = 0; c < s->colors; ++c) put(c, colourPlanes[c]);
  if (s->matte) put(s->colors, s->opacityPlane);
  return 0;
}

// The variant a target's extension asks for: 'p' PPM, 'g' PGM, 'b' PBM,
// 'a' PAM, 0 for any.
char variantOf(const char* extension) {
  if (!extension) return 0;
  if (strcasecmp(extension, "ppm") == 0) return 'p';
  if (strcasecmp(extension, "pgm") == 0) return 'g';
  if (strcasecmp(extension, "pbm") == 0) return 'b';
  if (strcasecmp(extension, "pam") == 0) return 'a';
  return 0;
}

// The file's layout for a picture of `colors` and `matte`, by the variant.
void chooseLayout(State* s, char variant) {
  struct pam& p = s->pam;
  s->outColors = variant == 'p' ? 3 : (variant == 'g' || variant == 'b') ? 1 : s->colors;
  s->outMatte = s->matte && (variant == 'a' || variant == 0);
  s->bits1 = variant == 'b';
  p.depth = unsigned(s->outColors + (s->outMatte ? 1 : 0));
  p.maxval = s->bits1 ? 1 : s->outBits == 16 ? 65535 : 255;
  if (variant == 'a' || s->outMatte)
    p.format = PAM_FORMAT;
  else if (s->bits1)
    p.format = RPBM_FORMAT;
  else
    p.format = s->outColors == 3 ? RPPM_FORMAT : RPGM_FORMAT;
  const char* type = s->bits1            ? "BLACKANDWHITE"
                     : s->outColors == 3 ? (s->outMatte ? "RGB_ALPHA" : "RGB")
                                         : (s->outMatte ? "GRAYSCALE_ALPHA" : "GRAYSCALE");
  std::snprintf(p.tuple_type, sizeof p.tuple_type, "%s", type);
  p.have_opacity = s->outMatte;
  p.opacity_plane = unsigned(s->outColors);
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const*, const PxfLut*, char* error,
                size_t size) {
  startNetpbm();
  if (image->colorChannels == 0 || image->width() < 1 || image->height() < 1 || image->width() > kMaxWidth) {
    fail(error, size, "Netpbm pictures need colour channels and a size");
    return nullptr;
  }
  auto* s = new State;
  s->writing = true;
  s->colors = image->colorChannels >= 3 ? 3 : 1;
  s->matte = image->matteChannels > 0;
  s->outBits = image->colorBits > 8 ? 16 : 8;
  s->file = pxfplugin::streamFile(out, "wb");
  if (!s->file) {
    fail(error, size, "%s", std::strerror(errno));
    release(s);
    return nullptr;
  }
  struct pam& p = s->pam;
  p.size = sizeof(struct pam);
  p.len = kPamSize;
  p.file = s->file;
  p.plainformat = 0;
  p.width = image->width();
  p.height = image->height();
  chooseLayout(s, variantOf(image->variant));
  s->row = pnm_allocpamrow(&s->pam);
  if (!netpbm(s, writeHeader)) {
    fail(error, size, "%s", s->message[0] ? s->message : "libnetpbm could not start");
    release(s);
    return nullptr;
  }
  return s;
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->pam.height - 1 - row != s->next) return fail(error, size, "rows are written from the top down only");
  auto in = [&](int c, int x) -> sample {
    return s->outBits == 16 ? pxfplugin::sampleOf<uint16_t>(channels[c], stride, x)
                            : pxfplugin::sampleOf<uint8_t>(channels[c], stride, x);
  };
  sample full = s->outBits == 16 ? 65535 : 255;
  for (int x = 0; x < s->pam.width; ++x) {
    tuple t = s->row[x];
    sample r = in(0, x), g = s->colors == 3 ? in(1, x) : r, b = s->colors == 3 ? in(2, x) : r;
    if (s->outColors == 3) {
      t[0] = r, t[1] = g, t[2] = b;
    } else {
      // Grey by the luma weights of television.
      sample y = s->colors == 3 ? (r * 299 + g * 587 + b * 114 + 500) / 1000 : r;
      t[0] = s->bits1 ? (y * 2 >= full ? 1 : 0) : y;
    }
    if (s->outMatte) t[s->outColors] = in(s->colors, x);
  }
  if (!netpbm(s, writeNext)) return fail(error, size, "%s", s->message[0] ? s->message : "cannot write");
  s->next++;
  return 0;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = 0;
  if (s->writing) rc = pxfplugin::finishWritten(s->file, s->next, s->pam.height, error, size);
  release(s);
  return rc;
}

}  // namespace

PXF_IMAGE_PLUGIN("pnm", "pnm;ppm;pgm;pbm;pam", "Netpbm", "PBM, PGM, PPM and PAM, 8 and 16 bits, with alpha in PAM",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               2u,
                               (1u << 7) | (1u << 15),
                               1u,
                               0u,
                               0u,
                               0,
                               true,
                               true,
                               nullptr,
                               0,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));
