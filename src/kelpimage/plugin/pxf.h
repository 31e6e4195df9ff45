// PXF, the image-format plug-in framework: the records the conversions fill
// and read, the operations they call, and the interface a format plug-in
// offers. A plug-in is a shared library that exports the data symbols
// "type" ("image"), "program" ("Thornfell"), "imageKey", optionally
// "imageExtension", "imageName" and "imageDescription", and "imagePlugin",
// a PxfPluginOps record: PXF_IMAGE_PLUGIN below declares them all.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelpimage/kelpexport.h"

// Sample kinds of the channels of an image record.
constexpr int32_t PXF_INTEGER = 1;
constexpr int32_t PXF_FLOAT = 2;
constexpr int32_t PXF_DOUBLE = 3;

// Scan-line orders: 1, the first row stored is the bottom one (as in IFF);
// 2, the first row stored is the top one.
constexpr int32_t PXF_BOTTOM_UP = 1;
constexpr int32_t PXF_TOP_DOWN = 2;

// PxfFormat::flags
// The writer takes an index channel and a look-up table, not colour.
constexpr uint8_t PXF_WRITES_INDEXES = 0x1;
constexpr uint8_t PXF_MULTIFRAME = 0x2;
// The format takes depth as 32-bit floats, the IFF depth values as they are
// (negative reciprocals, 0 for none), instead of 31-bit integers.
constexpr uint8_t PXF_FLOAT_DEPTH = 0x4;
// The format has no signature, and its recogniser only judges whether a
// header makes sense: it is asked after every format that has one.
constexpr uint8_t PXF_WEAK_SIGNATURE = 0x8;
// The format keeps pictures in tiles as well as in lines.
constexpr uint8_t PXF_TILES = 0x20;
// The writer keeps the association it is given, and says which it is.
constexpr uint8_t PXF_ANY_ASSOCIATION = 0x40;
// The format's colour is premultiplied by definition.
constexpr uint8_t PXF_PREMULTIPLIED_ALPHA = 0x80;

// PXF_scan_write: the format cannot be written by scan lines.
constexpr int PXF_ENOSCAN = -16;

// A capability setting: which capability, and its value.
struct PxfCapSetting {
  int16_t code;
  float value;
};

// A capability a format offers, such as "DPI Resolution" or "Quality".
// kind 1: a float value; flags bit 1: settable when writing. A setting
// outside minimum to maximum is refused before anything is written; `help`
// says what the values mean ("0 none, 1 LZW, 2 Deflate").
struct PxfCapability {
  int16_t code;
  const char* name;
  uint8_t kind;
  uint32_t flags;
  float minimum = 0.0f, maximum = 0.0f, fallback = 0.0f;
  const char* help = nullptr;
};

// A look-up table of colours, three 16-bit values an entry.
struct PxfLutEntry {
  uint16_t value[3];
  uint16_t unused;
};
struct PxfLut {
  PxfLutEntry* entries;
  int32_t count;
};

// Sample kinds of what a file itself stores (PxfImageData::storedKind).
constexpr int32_t PXF_STORED_INTEGER = 1;
constexpr int32_t PXF_STORED_HALF = 2;
constexpr int32_t PXF_STORED_FLOAT = 3;

// Alpha association of a picture's colour (PxfImageData::association).
constexpr int32_t PXF_STRAIGHT = 0;
constexpr int32_t PXF_PREMULTIPLIED = 1;

// The description of an image: filled by the caller to write, by the
// plug-in when it opens a file to read. The fields after `dpi` tell what
// the file itself holds, beside what the plug-in hands over.
struct PxfImageData {
  int32_t one0 = 1, one1 = 1;
  float scale = 1.0f;
  int32_t reserved[6] = {};
  const char* aspectName = nullptr;
  int32_t aspectWidth = 0, aspectHeight = 0;
  float aspectRatio = 1.0f;
  int32_t windowLeft = 0, windowRight = 0, windowBottom = 0, windowTop = 0;
  int32_t window2[4] = {};
  int32_t one2 = 1;
  int32_t orientation = PXF_BOTTOM_UP;
  const char* dataKind = nullptr;  // "rgb" for pictures the conversions read
  int32_t colorChannels = 0, colorKind = PXF_INTEGER, colorBits = 8, reserved1 = 0;
  int32_t matteChannels = 0, matteKind = PXF_INTEGER, matteBits = 8, reserved2 = 0;
  int32_t depthChannels = 0, depthKind = PXF_INTEGER, depthBits = 32, reserved3 = 0;
  int32_t indexChannels = 0, indexKind = PXF_INTEGER, indexBits = 8;
  float dpi = 0.0f;  // the resolution a file stores, 0 when none

  // What the file holds, for readers that keep it: its colour samples'
  // kind and bits (a half file is handed over as floats of 32 bits), the
  // association of its alpha, where its pixels lie in its full picture
  // (from the top left; a full size of 0 is the picture's own), its tiles,
  // the pixels' shape (width over height) and its compression.
  int32_t storedKind = PXF_STORED_INTEGER, storedBits = 0;
  int32_t association = PXF_STRAIGHT;
  int32_t originX = 0, originY = 0, fullWidth = 0, fullHeight = 0;
  int32_t tileWidth = 0, tileHeight = 0;
  float pixelAspect = 1.0f;
  const char* compression = nullptr;
  // Writing: the variant of the format the target's name asks for, its
  // extension without the dot ("pgm"), or null.
  const char* variant = nullptr;
  // Reading, set by the caller before the open: 1 lets a decoder step over
  // damage it can (a file cut short, corrupt data) instead of failing;
  // readRow then gives 0 with what it stepped over written into `error`.
  int32_t lenient = 0;
  // Reading, set by the caller before the open: 1 takes what a file keeps
  // as floats (half or float) as 32-bit floats, whole; 0 as 16-bit
  // integers of 0 to 1 (what lies outside clamped).
  int32_t wantsFloats = 0;

  int32_t width() const { return windowRight - windowLeft + 1; }
  int32_t height() const { return windowTop - windowBottom + 1; }
};

// Where a plug-in's bytes come from or go to. Reading: read() gives up to
// `size` bytes, 0 at the end, -1 on an error; writing: write() takes all of
// them or gives -1. seek() gives 0, or -1 where the stream cannot go back;
// size() is -1 when unknown. path() names a file the plug-in may open by
// name instead (the file itself, or a copy in memory), null when none can
// be made; error() says why the last call failed.
struct PxfStream {
  void* user;
  const char* name;
  int64_t (*read)(void* user, void* data, int64_t size);
  int64_t (*write)(void* user, const void* data, int64_t size);
  int (*seek)(void* user, int64_t position);
  int64_t (*tell)(void* user);
  int64_t (*size)(void* user);
  const char* (*path)(void* user);
  const char* (*error)(void* user);
};

// What a plug-in does, handed to the framework through "imagePlugin". Rows
// are counted from the bottom of the picture (row 0 is the bottom line); a
// plug-in whose format stores rows from the top reads and writes them in
// the order rows height - 1 down to 0 come. Each channel of a row is its
// own run of `width` samples of 1, 2 or 4 bytes (by the channel's bits),
// sample x at channels[c] + x * pixelStride (pixelStride 0: the sample's
// own size), in the order colour channels, matte, depth, index: so a
// caller may hand channels that interleave in one buffer. Errors are 0/-1
// results with the reason written into `error` (of `errorSize` bytes).
// openRead reads the header only: no pixel is decoded, and nothing the
// size of the picture is allocated, until the first readRow.
struct PxfPluginOps {
  uint32_t version;       // PXF_PLUGIN_VERSION of the header the plug-in was built with
  uint32_t size;          // sizeof(PxfPluginOps)
  uint32_t orientations;  // bit 0: writes orientation 1; bit 1: orientation 2
  uint32_t depths;        // bit n - 1: n bits a colour channel
  uint32_t matte;         // 0: no matte channel
  uint32_t depth;         // 0: no depth channel
  uint32_t depthWidths;   // bit n - 1: n bits; the top two bits stand for 31 and 32
  uint8_t flags;          // PXF_MULTIFRAME, PXF_FLOAT_DEPTH, PXF_WEAK_SIGNATURE
  bool canRead, canWrite;
  const PxfCapability* capabilities;
  int32_t capabilityCount;

  // 1 when the first `count` bytes of a file (up to 64) are this format's.
  int (*recognise)(const uint8_t* bytes, size_t count);
  // Reading: fills `image` and the frame count; returns the plug-in's state or null.
  void* (*openRead)(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t errorSize);
  int (*setFrame)(void* state, int32_t frame, PxfImageData* image, char* error, size_t errorSize);
  int (*readRow)(void* state, int32_t row, void* const* channels, int64_t pixelStride, char* error, size_t errorSize);
  // Writing: `settings` ends with a null; `lut` may be null.
  void* (*openWrite)(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut* lut,
                     char* error, size_t errorSize);
  int (*nextFrame)(void* state, const PxfImageData* image, char* error, size_t errorSize);
  int (*writeRow)(void* state, int32_t row, const void* const* channels, int64_t pixelStride, char* error,
                  size_t errorSize);
  // Ends reading or writing and frees the state; a write is complete only when this gives 0.
  int (*close)(void* state, char* error, size_t errorSize);
  // The samples the format's files hold, PXF_HOLDS_* bits (the writer's
  // choice among several by PxfImageData::storedKind); 0: the integer
  // widths `depths` names.
  uint32_t holds;
};

// PxfPluginOps::holds
constexpr uint32_t PXF_HOLDS_8 = 0x1;
constexpr uint32_t PXF_HOLDS_16 = 0x2;
constexpr uint32_t PXF_HOLDS_HALF = 0x4;
constexpr uint32_t PXF_HOLDS_FLOAT = 0x8;

// 2: streams in and out, channels with a pixel stride, option ranges and
// what the file holds. A plug-in built for another version is refused.
constexpr uint32_t PXF_PLUGIN_VERSION = 2;

#define PXF_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

// Declares the data symbols of an image plug-in.
#define PXF_IMAGE_PLUGIN(key, extensions, name, description, ops)     \
  PXF_PLUGIN_EXPORT const char* const type = "image";                 \
  PXF_PLUGIN_EXPORT const char* const program = "Thornfell";          \
  PXF_PLUGIN_EXPORT const char* const imageKey = key;                 \
  PXF_PLUGIN_EXPORT const char* const imageExtension = extensions;    \
  PXF_PLUGIN_EXPORT const char* const imageName = name;               \
  PXF_PLUGIN_EXPORT const char* const imageDescription = description; \
  PXF_PLUGIN_EXPORT const PxfPluginOps imagePlugin = ops

// One format the framework knows.
struct PxfFormat {
  const char* key;
  const char* name;
  uint32_t orientations;
  uint32_t depths;
  uint32_t matte;
  uint32_t depth;
  uint32_t depthWidths;
  uint8_t flags;
  const char* extensions;  // ';' between them
  const char* description;
  const char* path;  // the plug-in file
  const PxfPluginOps* ops;
};

// What a caller fills before PXF_open.
struct PxfFileInfo {
  const char* key;
  const char* name;
  uint8_t one;
  const char* name2;
  const char* extension;  // writing: the output name from its last '.'
  const char* comment;
  const char* creator;
  PxfCapSetting** settings;  // null-terminated, or null
  PxfLut* lut;
  int32_t zero[3];
  int32_t imageCount;
  PxfImageData* image;
};

// An open file.
struct PxfHandle {
  const char* name;
  PxfImageData* image;  // null for an empty image
  int32_t frameCount;
  int32_t firstFrame;
  PxfFormat* format;
  int32_t frame;
  bool writing;
  void* state;
  void* file;  // the stream of a file opened by name, owned
};

// A channel array from PXF_chan_alloc.
struct PxfChannels {
  int32_t count;
  void** buffers;
};

using PxfNextPlugin = bool (*)(void** handle, char** path);

KELP_API int PXF_init(int unused, PxfNextPlugin next);
KELP_API int PXF_exit();
KELP_API PxfFormat* PXF_find(const char* key);
// The formats known, by index from 0; null past the last.
KELP_API PxfFormat* PXF_format(int index);
KELP_API const char* PXF_get_file_type(const char* path, int unused, uint8_t* flag);
KELP_API void PXF_info_init(PxfFileInfo* info);
KELP_API int PXF_info_get_specific(int unused, const PxfFormat* format, const PxfCapability** descriptors,
                                   void* unused2, void* unused3, int32_t* count);
KELP_API PxfCapSetting* PXF_cap_setting_alloc(int count);
KELP_API PxfHandle* PXF_open(PxfFileInfo* info, const char* mode);
KELP_API int PXF_close(PxfHandle* handle);
KELP_API int PXF_set_frame(PxfHandle* handle, int32_t frame);
KELP_API PxfChannels* PXF_chan_alloc(const PxfImageData* image, int32_t width, const char* key, int32_t* count);
KELP_API void PXF_chan_free(PxfChannels* channels);
KELP_API int PXF_scan_read(PxfHandle* handle, int32_t row, PxfChannels* channels);
KELP_API int PXF_scan_write(PxfHandle* handle, int32_t row, PxfChannels* channels);
KELP_API PxfLut* PXF_lut_alloc(int32_t count);
KELP_API void PXF_lut_free(PxfLut* lut);
KELP_API const char* FMT_def_image_data();
KELP_API void ERR_mask_s(int mask);
// Why the last operation of this thread failed, as the plug-in said it.
KELP_API const char* PXF_last_error();
// What the plug-in files that were not taken were, and why: one line each
// ("PATH: reason"), in the order they were met; empty when all were taken.
KELP_API const char* PXF_load_problems();

// Bytes a sample of `bits` takes in a channel buffer: 1, 2 or 4.
inline int32_t PXF_sample_bytes(int32_t bits) { return bits <= 8 ? 1 : bits <= 16 ? 2 : 4; }
