// The JPEG plug-in, on libjpeg-turbo: 8 bits, grey and RGB; quality as a
// capability setting; the resolution of the JFIF header. Bytes go through
// the framework's stream. A file cut short or with corrupt data, which
// libjpeg only warns of, is an error (a lenient read steps over it and says
// so). libjpeg reports errors through error_exit, which here jumps back to
// the call that failed.
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>
// After jpeglib.h, which it needs.
#include <jerror.h>

#include "plugin_util.h"

using pxfplugin::fail;

namespace {

constexpr size_t kBuffer = 1 << 16;

struct ErrorManager {
  jpeg_error_mgr base;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
  bool lenient = false;
  char warning[JMSG_LENGTH_MAX];  // the first damage stepped over, in a lenient read
};

void onError(j_common_ptr info) {
  auto* e = reinterpret_cast<ErrorManager*>(info->err);
  (*info->err->format_message)(info, e->message);
  longjmp(e->jump, 1);
}

// Warnings are damage: a premature end, corrupt data, extraneous bytes.
void onMessage(j_common_ptr info, int level) {
  if (level >= 0) return;  // traces
  auto* e = reinterpret_cast<ErrorManager*>(info->err);
  if (!e->lenient) {
    (*info->err->format_message)(info, e->message);
    longjmp(e->jump, 1);
  }
  if (!e->warning[0]) (*info->err->format_message)(info, e->warning);
}

// libjpeg's source and destination on the framework's stream.
struct Source {
  jpeg_source_mgr base;
  PxfStream* stream;
  JOCTET buffer[kBuffer];
};

void sourceStart(j_decompress_ptr) {}

boolean sourceFill(j_decompress_ptr info) {
  auto* src = reinterpret_cast<Source*>(info->src);
  int64_t n = src->stream->read(src->stream->user, src->buffer, int64_t(kBuffer));
  if (n <= 0) {
    // What libjpeg does at the end of a file: a warning and a made-up end.
    WARNMS(info, JWRN_JPEG_EOF);
    src->buffer[0] = 0xFF;
    src->buffer[1] = JPEG_EOI;
    n = 2;
  }
  src->base.next_input_byte = src->buffer;
  src->base.bytes_in_buffer = size_t(n);
  return TRUE;
}

void sourceSkip(j_decompress_ptr info, long count) {
  auto* src = reinterpret_cast<Source*>(info->src);
  while (count > long(src->base.bytes_in_buffer)) {
    count -= long(src->base.bytes_in_buffer);
    sourceFill(info);
  }
  src->base.next_input_byte += count;
  src->base.bytes_in_buffer -= size_t(count);
}

void sourceEnd(j_decompress_ptr) {}

struct Destination {
  jpeg_destination_mgr base;
  PxfStream* stream;
  JOCTET buffer[kBuffer];
};

void destinationStart(j_compress_ptr info) {
  auto* dst = reinterpret_cast<Destination*>(info->dest);
  dst->base.next_output_byte = dst->buffer;
  dst->base.free_in_buffer = kBuffer;
}

void send(j_compress_ptr info, size_t count) {
  auto* dst = reinterpret_cast<Destination*>(info->dest);
  if (count && dst->stream->write(dst->stream->user, dst->buffer, int64_t(count)) < 0) {
    auto* e = reinterpret_cast<ErrorManager*>(info->err);
    std::snprintf(e->message, sizeof e->message, "%s", pxfplugin::streamError(dst->stream, "cannot be written"));
    longjmp(e->jump, 1);
  }
}

boolean destinationEmpty(j_compress_ptr info) {
  send(info, kBuffer);
  destinationStart(info);
  return TRUE;
}

void destinationEnd(j_compress_ptr info) {
  auto* dst = reinterpret_cast<Destination*>(info->dest);
  send(info, kBuffer - dst->base.free_in_buffer);
}

struct State {
  bool writing = false;
  ErrorManager errors{};
  jpeg_decompress_struct in{};
  jpeg_compress_struct out{};
  Source source{};
  Destination destination{};
  bool created = false, decoding = false;
  int32_t width = 0, height = 0;
  int components = 3;
  int32_t next = 0;
  JSAMPLE* row = nullptr;
};

void release(State* s) {
  if (s->created) {
    if (s->writing)
      jpeg_destroy_compress(&s->out);
    else
      jpeg_destroy_decompress(&s->in);
  }
  std::free(s->row);
  delete s;
}

int recognise(const uint8_t* b, size_t n) { return n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF; }

// The header only: nothing the size of the picture is made here.
bool readHeader(State* s, PxfImageData* image, char* error, size_t size) {
  if (setjmp(s->errors.jump)) return fail(error, size, "%s", s->errors.message), false;
  jpeg_create_decompress(&s->in);
  s->created = true;
  s->in.src = &s->source.base;
  s->source.base.init_source = sourceStart;
  s->source.base.fill_input_buffer = sourceFill;
  s->source.base.skip_input_data = sourceSkip;
  s->source.base.resync_to_restart = jpeg_resync_to_restart;
  s->source.base.term_source = sourceEnd;
  jpeg_read_header(&s->in, TRUE);
  if (s->in.jpeg_color_space == JCS_CMYK || s->in.jpeg_color_space == JCS_YCCK)
    return fail(error, size, "CMYK pictures are not read"), false;
  // A block of 8 x 8 pixels takes a bit at the least.
  if (!pxfplugin::sizeAllowed(s->in.image_width, s->in.image_height, s->source.stream, 512, error, size)) return false;
  s->in.out_color_space = s->in.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_calc_output_dimensions(&s->in);
  s->width = int32_t(s->in.output_width);
  s->height = int32_t(s->in.output_height);
  s->components = s->in.output_components;
  pxfplugin::describePicture(image, s->width, s->height, PXF_TOP_DOWN, s->components, false, 8);
  image->compression = s->in.progressive_mode ? "JPEG, progressive" : "JPEG";
  if (s->in.saw_JFIF_marker && s->in.X_density > 0) {
    if (s->in.density_unit == 1)
      image->dpi = float(s->in.X_density);
    else if (s->in.density_unit == 2)
      image->dpi = float(s->in.X_density * 2.54);
    if (s->in.Y_density > 0) image->pixelAspect = float(s->in.Y_density) / float(s->in.X_density);
  }
  return true;
}

void* openRead(PxfStream* in, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto* s = new State;
  s->in.err = jpeg_std_error(&s->errors.base);
  s->errors.base.error_exit = onError;
  s->errors.base.emit_message = onMessage;
  s->errors.lenient = image->lenient != 0;
  s->source.stream = in;
  if (!readHeader(s, image, error, size)) {
    release(s);
    return nullptr;
  }
  *frames = 1;
  return s;
}

bool readNext(State* s) {
  if (setjmp(s->errors.jump)) return false;
  if (!s->decoding) {
    s->row = static_cast<JSAMPLE*>(std::malloc(size_t(s->width) * size_t(s->components)));
    if (!s->row) {
      std::snprintf(s->errors.message, sizeof s->errors.message, "out of memory");
      return false;
    }
    jpeg_start_decompress(&s->in);
    s->decoding = true;
  }
  JSAMPROW rows[1] = {s->row};
  return jpeg_read_scanlines(&s->in, rows, 1) == 1;
}

int readRow(void* state, int32_t row, void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are read from the top down only");
  if (!readNext(s)) return fail(error, size, "%s", s->errors.message[0] ? s->errors.message : "the file ends early");
  s->next++;
  pxfplugin::deinterleave(s->row, s->components, 1, channels, stride, 0, s->components, s->width);
  if (s->errors.warning[0]) fail(error, size, "%s", s->errors.warning);  // said, and read on
  return 0;
}

bool startWriting(State* s, int quality, float dpi) {
  if (setjmp(s->errors.jump)) return false;
  jpeg_create_compress(&s->out);
  s->created = true;
  s->out.dest = &s->destination.base;
  s->destination.base.init_destination = destinationStart;
  s->destination.base.empty_output_buffer = destinationEmpty;
  s->destination.base.term_destination = destinationEnd;
  s->out.image_width = JDIMENSION(s->width);
  s->out.image_height = JDIMENSION(s->height);
  s->out.input_components = s->components;
  s->out.in_color_space = s->components == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_set_defaults(&s->out);
  jpeg_set_quality(&s->out, quality, TRUE);
  // At high quality colour keeps full resolution, as other encoders do.
  if (quality >= 90 && s->components == 3) s->out.comp_info[0].h_samp_factor = s->out.comp_info[0].v_samp_factor = 1;
  if (dpi >= 1.0f) {
    s->out.write_JFIF_header = TRUE;
    s->out.density_unit = 1;
    s->out.X_density = s->out.Y_density = UINT16(dpi + 0.5f);
  }
  jpeg_start_compress(&s->out, TRUE);
  return true;
}

void* openWrite(PxfStream* out, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*, char* error,
                size_t size) {
  auto* s = new State;
  s->writing = true;
  s->out.err = jpeg_std_error(&s->errors.base);
  s->errors.base.error_exit = onError;
  s->errors.base.emit_message = onMessage;
  s->destination.stream = out;
  s->width = image->width();
  s->height = image->height();
  s->components = image->colorChannels >= 3 ? 3 : 1;
  if (image->colorChannels == 0 || s->width < 1 || s->height < 1) {
    fail(error, size, "JPEG pictures need colour channels and a size");
    release(s);
    return nullptr;
  }
  s->row = static_cast<JSAMPLE*>(std::malloc(size_t(s->width) * size_t(s->components)));
  int quality = int(pxfplugin::setting(settings, pxfplugin::kQualityCode, 90.0f));
  float dpi = pxfplugin::setting(settings, pxfplugin::kDpiCode, 0.0f);
  if (!s->row || !startWriting(s, quality < 1 ? 1 : quality > 100 ? 100 : quality, dpi)) {
    fail(error, size, "%s", s->row ? s->errors.message : "out of memory");
    release(s);
    return nullptr;
  }
  return s;
}

bool writeNext(State* s) {
  if (setjmp(s->errors.jump)) return false;
  JSAMPROW rows[1] = {s->row};
  return jpeg_write_scanlines(&s->out, rows, 1) == 1;
}

int writeRow(void* state, int32_t row, const void* const* channels, int64_t stride, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are written from the top down only");
  pxfplugin::interleave(channels, stride, 0, s->components, 1, s->row, s->width, s->components);
  if (!writeNext(s)) return fail(error, size, "%s", s->errors.message);
  s->next++;
  return 0;
}

bool finish(State* s) {
  if (setjmp(s->errors.jump)) return false;
  if (s->writing) jpeg_finish_compress(&s->out);
  return true;
}

int closeFile(void* state, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  int rc = 0;
  if (s->writing) {
    if (s->next != s->height)
      rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
    else if (!finish(s))
      rc = fail(error, size, "%s", s->errors.message);
  }
  release(s);
  return rc;
}

const PxfCapability kCapabilities[] = {
    pxfplugin::dpiCapability(),
    {pxfplugin::kQualityCode, "Quality", 1, 2, 1.0f, 100.0f, 90.0f, "1 (smallest) to 100 (best)"},
};

}  // namespace

PXF_IMAGE_PLUGIN("jpg", "jpg;jpeg", "JPEG", "JPEG pictures, 8 bits, grey and RGB",
                 (PxfPluginOps{PXF_PLUGIN_VERSION,
                               sizeof(PxfPluginOps),
                               2u,
                               1u << 7,
                               0u,
                               0u,
                               0u,
                               0,
                               true,
                               true,
                               kCapabilities,
                               2,
                               recognise,
                               openRead,
                               nullptr,
                               readRow,
                               openWrite,
                               nullptr,
                               writeRow,
                               closeFile,
                               0}));
