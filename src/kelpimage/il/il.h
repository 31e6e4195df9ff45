// The IFF image library: one handle per open image file, attribute calls,
// the header and its named fields.
//
// Every function that can fail returns 0 for success and a code otherwise
// (or null, or -1 where its result is a pointer or a value), with the code in
// flerrno. FLstrerror gives the text of any code.
#pragma once

#include <cstdint>

#include "kelpimage/il/chunk/fl.h"
#include "kelpimage/kelpexport.h"

// Control word bits (ILimage::ictl). The low sixteen bits are the library's.
constexpr uint32_t ILC_HEADER = 0x1;           // header read or written: attributes are fixed
constexpr uint32_t ILC_BITMAP = 0x2;           // the tile group is open
constexpr uint32_t ILC_LINES = 0x4;            // line transfer in progress
constexpr uint32_t ILC_REFUSED = 0x8;          // the header was read and refused (IL_ERANGE)
constexpr uint32_t ILC_DONE = 0x10;            // the pixels of this image are finished
constexpr uint32_t ILC_PAGED = 0x20;           // the caller fixed the tile layout
constexpr uint32_t ILC_WIDEN = 0x80;           // 1-byte file handed out as 2 bytes per channel
constexpr uint32_t ILC_READ = 0x1000;          // opened for reading
constexpr uint32_t ILC_TOPDOWN = 0x10000;      // lines go from the top (highest y) down
constexpr uint32_t ILC_RAWCHANNELS = 0x40000;  // memory pixels hold only the channels present
constexpr uint32_t ILC_DEEP = 0x100000;        // memory channels keep the file's bytes per channel
constexpr uint32_t ILC_OWNALPHA = 0x200000;    // ILload treats the image as having alpha

// Image type bits (ILimage::type).
constexpr uint32_t ILT_COLOR = 1;
constexpr uint32_t ILT_ALPHA = 2;
constexpr uint32_t ILT_DEPTH = 4;
constexpr uint32_t ILT_SPARE = 8;
constexpr uint32_t ILT_BLACK = 16;

// The image library's own error codes.
enum : int {
  IL_ENOIMAGE = 100,    // no image form found; ILnext: no further image
  IL_EPARSE = 101,      // no image form found, the chunk services reported an error
  IL_EINFILTER = 102,   // the input filter failed
  IL_EFIXED = 103,      // attributes are fixed once the header is read or written
  IL_ENOHEADER = 104,   // end of the group before the header chunk
  IL_EBADHEADER = 105,  // the header chunk could not be read
  IL_ERANGE = 106,      // size out of range
  IL_EDONE = 107,       // pixels already finished, or the tile group ended early
  IL_ENOCODEC = 108,    // the compressor number has no function
  IL_ENOBITMAP = 109,   // no tile group follows the header
  IL_ENOSOURCE = 110,   // a zoom record has no source of lines
  IL_EOUTFILTER = 111,  // an output filter failed
  IL_ENOFILTER = 112,   // zoom filter program not found
};

constexpr uint32_t IL_CIMG = FLmaketag("CIMG");
constexpr uint32_t IL_TBMP = FLmaketag("TBMP");
constexpr uint32_t IL_FVER = FLmaketag("FVER");
constexpr uint32_t IL_TBHD = FLmaketag("TBHD");
constexpr uint32_t IL_FLDS = FLmaketag("FLDS");
constexpr uint32_t IL_AUTH = FLmaketag("AUTH");
constexpr uint32_t IL_DATE = FLmaketag("DATE");
constexpr uint32_t IL_RGBA = FLmaketag("RGBA");
constexpr uint32_t IL_ZBUF = FLmaketag("ZBUF");
constexpr uint32_t IL_DPI = FLmaketag("DPI ");

// Parameters of the pack and unpack functions.
struct ILpackinfo {
  uint32_t width, height, bytes, bitmask, noalpha, channels, linewidth, reduce, size;
  uint8_t** lookups;
};
using ILcodecfn = int (*)(void* dest, void* src, ILpackinfo* info);

struct ILzoom;

// The attribute block: the header's fields in machine order, `bytes` as the
// true count of bytes per channel.
struct ILheader {
  uint32_t width;
  uint32_t height;
  uint16_t prnum;
  uint16_t prden;
  uint32_t type;
  uint16_t bytes;
  uint16_t pages;
  uint32_t compress;
  int32_t orgx;
  int32_t orgy;
};

// The image handle: a file record of the chunk services extended with the
// header, the pixel transfer state, the zoom and the fields.
struct ILimage : FLfile, ILheader {
  uint32_t version;
  uint32_t ictl;
  uint32_t twidth;
  uint32_t theight;
  uint32_t bitmask;
  uint32_t channels;
  uint32_t pwidth;
  uint32_t lwidth;
  float dpi;
  uint8_t* line;
  float* zline;
  uint32_t waterline;
  uint32_t startline;
  FLlist tilelist;
  uint32_t pbound;
  uint32_t pheight;
  uint8_t* color;
  float* zbuffer;
  uint32_t samples;
  uint32_t zsamples;
  uint8_t** lookups;
  ILcodecfn compressor;
  ILzoom* zoom;
  FLlist fields;
  uint64_t headerpos;
  uint32_t threads;  // threads reading a whole image (ILsetthreads); 0: one
};

// A field in the handle's list: the node's type word is the tag.
struct ILfield {
  FLnode node;
  uint32_t length;
  uint8_t value[4];  // `length` bytes, the allocation rounded up to 4
};

// Library-wide control bits (ilconfig).
constexpr uint32_t ILCONF_NOOUTFILTER = 1;  // never pass a written file through an output filter
constexpr uint32_t ILCONF_PIPEFILTER = 2;   // "pipe:" names get the output filter as well
constexpr uint32_t ILCONF_COMPRESS = 4;     // new files get compression 1 even on streams
constexpr uint32_t ILCONF_ZOOM = 8;         // read by the zoom option code

KELP_API extern uint32_t ilconfig;

// Handle and lifecycle.
KELP_API ILimage* ILopen(const char* name, const char* mode);
KELP_API ILimage* ILreopen(const char* name, const char* mode, ILimage* image);
KELP_API int ILclose(ILimage* image);
KELP_API int ILnext(ILimage* image);
KELP_API void ILinitio(ILimage* image);
KELP_API void ILconfig(uint32_t bits, int on);
KELP_API uint32_t ILctrl(ILimage* image, uint32_t bits, int on);
// Threads that read a whole image at once (ILloadbm, and ILload without
// ILC_TOPDOWN): 1 (the default) decodes each tile in the caller's thread as
// it is read; more read the next batch of tiles while the last is decoded
// on them; 0 is one a core. The pixels are the same either way.
KELP_API void ILsetthreads(ILimage* image, uint32_t threads);
// The most pixels (width x height) a file's header may declare: larger
// images are refused with IL_ERANGE before anything is allocated for them,
// and so are images too large for the bytes the file holds. It is the
// library's one pixel limit (TpixelLimit): 2^27 pixels by default, or the
// KELP_MAX_PIXELS environment variable; `pixels` above 0 sets it for the
// process. Returns the limit in force.
KELP_API uint64_t ILmaxpixels(uint64_t pixels);
KELP_API const char* ILinfilter(const char* text);
KELP_API const char* ILoutfilter(const char* text);
KELP_API FLpath* ILgetpath();

// Header and attributes.
KELP_API ILheader* ILgetheader(ILimage* image);
KELP_API int ILputheader(ILimage* image);
KELP_API int ILsetsize(ILimage* image, int32_t width, int32_t height);
KELP_API int ILsetorigin(ILimage* image, int32_t x, int32_t y);
KELP_API int ILsettype(ILimage* image, int32_t type);
KELP_API int ILsetratio(ILimage* image, int32_t num, int32_t den);
KELP_API int ILsetbpp(ILimage* image, int32_t bytes);
KELP_API int ILsetcompress(ILimage* image, uint32_t number);
KELP_API int ILsetpagesize(ILimage* image, int32_t width, int32_t height);
KELP_API int ILsetpages(ILimage* image, uint16_t pages);
KELP_API int ILsetlookups(ILimage* image, uint8_t** lookups);
KELP_API int ILgetsize(ILimage* image, int32_t* width, int32_t* height);
KELP_API int ILgetorigin(ILimage* image, int32_t* x, int32_t* y);
KELP_API int ILgettype(ILimage* image);
KELP_API int ILgetratio(ILimage* image, int32_t* num, int32_t* den);
KELP_API int ILgetbpp(ILimage* image);
KELP_API int ILgetcompress(ILimage* image);
KELP_API int ILgetpages(ILimage* image);

// Fields.
KELP_API void ILinitfields(ILimage* image);
KELP_API int ILsetfield(ILimage* image, uint32_t tag, uint32_t length, const void* value);
KELP_API uint32_t ILgetfield(ILimage* image, uint32_t tag, const void** value);
KELP_API int ILreadfields(ILimage* image);
KELP_API int ILwritefields(ILimage* image);
KELP_API int ILcopyfields(ILimage* to, ILimage* from);

// Zoom: resampling a stream of lines to another size, one line at a time.
// A line callback hands out one source line (either pointer may be null)
// and returns 0 or a code; ILgetzoom has this form, so records can chain.
using ILlinefn = int (*)(void* arg, uint8_t** color, float** depth);
KELP_API ILzoom* ILnewzoom(const char* filter);
KELP_API void ILdelzoom(ILzoom* zoom);
KELP_API void ILsetzoomblur(ILzoom* zoom, float x, float y);
// Threads a filtered zoom works on: 1 (the default) makes each line as it is
// asked for, in the caller's thread; any other count makes a batch of lines
// at a time on that many threads (0: one a core), reading the source lines
// the batch needs ahead. The lines are the same either way; set before the
// first line is read. A batch makes what its first line asks for, colour,
// depth or both; a later line that asks for more fails with FL_EARG.
KELP_API void ILsetzoomthreads(ILzoom* zoom, uint32_t threads);
KELP_API void ILsetzoomoffset(ILzoom* zoom, float x, float y);
KELP_API void ILsetzoommargin(ILzoom* zoom, float xlow, float ylow, float xhigh, float yhigh);
// Mode bit 0: source lines of 8 bytes a pixel (else 4); bit 1: result lines
// of 8 bytes a pixel. Returns 0, 1 when nothing needs doing, or 106.
KELP_API int ILbindzoom(ILzoom* zoom, void* arg, ILlinefn callback, int mode, int32_t resultWidth, int32_t resultHeight,
                        int32_t sourceWidth, int32_t sourceHeight);
KELP_API int ILreadzoom(ILzoom* zoom, void* color, float* depth);
KELP_API int ILgetzoom(void* zoom, uint8_t** color, float** depth);
KELP_API const char* ILdefaultzoom(const char* filter);
// The names of the built-in filters, by index from 0; null past the last.
// Filter programs lie in the "filters" directory of the work area (FLgetwork).
KELP_API const char* ILbuiltinfilter(int index);
// Why the last zoom filter made on this thread is a box although a program of
// its name exists: the program's file and line and what is wrong there.
// Empty when the filter was found, or when nothing of that name exists (112).
KELP_API const char* ILfiltererror();
KELP_API int ILsetzoom(ILimage* image, const char* filter, int32_t width, int32_t height, float blurX, float blurY,
                       float offsetX, float offsetY);
// The result size of a bound record.
KELP_API void ILzoomsize(const ILzoom* zoom, int32_t* width, int32_t* height);
// What a bound record does, for diagnostics: the list name of its active
// filter on an axis (0 x, 1 y; null for nearest-neighbour), and the taps of
// result sample `index` on an axis: their count, the first source sample,
// and up to `max` weights (none for a single tap).
KELP_API const char* ILzoomfilter(const ILzoom* zoom, int axis);
// 1 when the 16-bit lines this zoom makes hold each pair of channels swapped
// (green, blue, alpha, red where memory order is blue, green, red, alpha),
// as lines filtered at 16 bits do; 0 otherwise. ILswappairs16 puts such a
// line's channels back in place.
KELP_API int ILzoomswapped(const ILzoom* zoom);
KELP_API void ILswappairs16(void* line, int32_t pixels);
KELP_API int ILzoomtaps(const ILzoom* zoom, int axis, int32_t index, int32_t* first, int32_t* weights, int32_t max);

// Image tools. ILqblur blurs a raster of 4-byte pixels by `blur` percent of
// its size, through a reduce and an expand with "gauss" records.
KELP_API int ILqblur(void* out, const void* in, int32_t width, int32_t height, float blur);
// Complex transforms of n values held as float pairs: ILqft is the quick
// recursive form (twiddles of the first table entry above n = 4); the
// 1x forms pad to a power of two (`out` holds that many) and do not scale.
KELP_API void ILqft(float* out, const float* in, int32_t n);
KELP_API int ILdfft1x(float* out, const float* in, int32_t n);
KELP_API int ILifft1x(float* out, const float* in, int32_t n);
// Real transforms of n floats in packed form, padded to a power of two.
KELP_API int ILdfft1f(float* out, const float* in, int32_t n);
KELP_API int ILifft1f(float* out, const float* in, int32_t n);

// A range of frame numbers.
struct ILframerange {
  float first, last, step;
};
// The frames of a numbered series "stem.[first,last,step]" that exist along
// the image path; their count, 0 for a plain file, -1 for none.
KELP_API int ILrange(const char* name, ILframerange* range, char* dirOut, size_t dirSize, float* framesOut);

// Pixel codecs. Pack functions return the bytes written (never 0); unpack
// functions return the bytes produced, or 0 with flerrno 23 on damaged data.
KELP_API int ILpack(void* dest, void* src, ILpackinfo* info);
KELP_API int ILpackrle(void* dest, void* src, ILpackinfo* info);
KELP_API int ILpackqrl(void* dest, void* src, ILpackinfo* info);
KELP_API int ILpackqr4(void* dest, void* src, ILpackinfo* info);
KELP_API int ILunpack(void* dest, void* src, ILpackinfo* info);
KELP_API int ILunpackrle(void* dest, void* src, ILpackinfo* info);
KELP_API int ILunpackqrl(void* dest, void* src, ILpackinfo* info);
KELP_API int ILunpackqr4(void* dest, void* src, ILpackinfo* info);
KELP_API void ConvertABGRtoBGRA(void* buffer, ILpackinfo* info);
KELP_API void ConvertBGRAtoABGR(void* buffer, ILpackinfo* info);

// The compressor table: numbers 0 to 3 are built in, 32 to 63 free for
// ILaddcompressor; numbers are cut to 16 bits and above 63 find nothing.
constexpr int IL_COMPNAMELEN = 32;  // room a caller gives ILfindcompressor for the name
KELP_API void ILaddcompressor(uint32_t number, const char* name, ILcodecfn pack, ILcodecfn unpack);
KELP_API void ILfindcompressor(uint32_t number, char* name, ILcodecfn* pack, ILcodecfn* unpack);

// Reading pixels. Lines come from y 0 (the bottom) up, or with ILC_TOPDOWN
// from the top down; either pointer may be null when that data is not wanted.
KELP_API int ILgetline(ILimage* image, uint8_t** line, float** zline);
KELP_API int ILreadline(ILimage* image, void* color, float* z);
KELP_API int ILload(ILimage* image, void* color, float* z);
KELP_API int ILloadbm(ILimage* image, void* color, float* z);
KELP_API int ILcload(ILimage* image, uint32_t* buffer, int32_t bufferWidth, int32_t bufferHeight, int32_t x, int32_t y,
                     float scale, float fade, int smooth);
// Completes what a file did not carry: grey into three channels, full alpha,
// black. `mask` holds the image type bits.
KELP_API void ILfill(void* raster, int32_t w, int32_t h, int32_t bytes, int32_t stride, uint32_t mask);

// Writing pixels, by tiles or by lines.
KELP_API int ILwritetile(ILimage* image, void* color, float* z, const int32_t rect[4], int32_t stride);
KELP_API int ILendtile(ILimage* image);
KELP_API uint8_t* ILbgnline(ILimage* image, float** zline);
KELP_API int ILendline(ILimage* image);
KELP_API int ILwriteline(ILimage* image, const void* color, const float* z);
KELP_API int ILsave(ILimage* image, const void* color, const float* z, int32_t stride);

// The identity lookup table.
KELP_API extern const uint8_t ildeflut[256];

// "RGB with Alpha, ZBuffer" and the like, for a type.
KELP_API const char* ILtypename(uint32_t type, char* buffer, size_t size);
