// The JPEG plug-in, on libjpeg-turbo: 8 bits, grey and RGB; quality as a
// capability setting; the resolution of the JFIF header. libjpeg reports
// errors through error_exit, which here jumps back to the call that failed.
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>

#include "kelpimage/plugin/pxf.h"
#include "plugin_util.h"

using pxfplugin::fail;

namespace {

struct ErrorManager {
  jpeg_error_mgr base;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX];
};

void onError(j_common_ptr info) {
  auto* e = reinterpret_cast<ErrorManager*>(info->err);
  (*info->err->format_message)(info, e->message);
  longjmp(e->jump, 1);
}

void onMessage(j_common_ptr, int) {}

struct State {
  FILE* file = nullptr;
  bool writing = false;
  ErrorManager errors{};
  jpeg_decompress_struct in{};
  jpeg_compress_struct out{};
  bool started = false;
  int32_t width = 0, height = 0;
  int components = 3;
  int32_t next = 0;
  JSAMPLE* row = nullptr;
};

void release(State* s) {
  if (s->started) {
    if (s->writing) jpeg_destroy_compress(&s->out);
    else jpeg_destroy_decompress(&s->in);
  }
  if (s->file) std::fclose(s->file);
  std::free(s->row);
  delete s;
}

int recognise(const uint8_t* b, size_t n) { return n >= 3 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF; }

bool startReading(State* s, PxfImageData* image) {
  if (setjmp(s->errors.jump)) return false;
  jpeg_create_decompress(&s->in);
  s->started = true;
  jpeg_stdio_src(&s->in, s->file);
  jpeg_read_header(&s->in, TRUE);
  if (s->in.jpeg_color_space == JCS_CMYK || s->in.jpeg_color_space == JCS_YCCK) {
    std::snprintf(s->errors.message, sizeof s->errors.message, "CMYK pictures are not read");
    return false;
  }
  s->in.out_color_space = s->in.num_components == 1 ? JCS_GRAYSCALE : JCS_RGB;
  jpeg_start_decompress(&s->in);
  s->width = int32_t(s->in.output_width);
  s->height = int32_t(s->in.output_height);
  s->components = s->in.output_components;
  s->row = static_cast<JSAMPLE*>(std::malloc(size_t(s->width) * size_t(s->components)));
  if (!s->row) {
    std::snprintf(s->errors.message, sizeof s->errors.message, "out of memory");
    return false;
  }
  pxfplugin::describePicture(image, s->width, s->height, PXF_TOP_DOWN, s->components, false, 8);
  if (s->in.saw_JFIF_marker && s->in.X_density > 0) {
    if (s->in.density_unit == 1) image->dpi = float(s->in.X_density);
    else if (s->in.density_unit == 2) image->dpi = float(s->in.X_density * 2.54);
  }
  return true;
}

void* openRead(const char* name, PxfImageData* image, int32_t* frames, char* error, size_t size) {
  auto* s = new State;
  s->in.err = jpeg_std_error(&s->errors.base);
  s->errors.base.error_exit = onError;
  s->errors.base.emit_message = onMessage;
  s->file = std::fopen(name, "rb");
  if (!s->file) {
    fail(error, size, "%s", std::strerror(errno));
    release(s);
    return nullptr;
  }
  if (!startReading(s, image)) {
    fail(error, size, "%s", s->errors.message);
    release(s);
    return nullptr;
  }
  *frames = 1;
  return s;
}

bool readNext(State* s) {
  if (setjmp(s->errors.jump)) return false;
  JSAMPROW rows[1] = {s->row};
  return jpeg_read_scanlines(&s->in, rows, 1) == 1;
}

int readRow(void* state, int32_t row, void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are read from the top down only");
  if (!readNext(s)) return fail(error, size, "%s", s->errors.message[0] ? s->errors.message : "the file ends early");
  s->next++;
  pxfplugin::deinterleave(s->row, s->components, 1, channels, 0, s->components, s->width);
  return 0;
}

bool startWriting(State* s, int quality, float dpi) {
  if (setjmp(s->errors.jump)) return false;
  jpeg_create_compress(&s->out);
  s->started = true;
  jpeg_stdio_dest(&s->out, s->file);
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

void* openWrite(const char* name, const PxfImageData* image, PxfCapSetting* const* settings, const PxfLut*,
                char* error, size_t size) {
  auto* s = new State;
  s->writing = true;
  s->out.err = jpeg_std_error(&s->errors.base);
  s->errors.base.error_exit = onError;
  s->errors.base.emit_message = onMessage;
  s->width = image->width();
  s->height = image->height();
  s->components = image->colorChannels >= 3 ? 3 : 1;
  if (image->colorChannels == 0 || s->width < 1 || s->height < 1) {
    fail(error, size, "JPEG pictures need colour channels and a size");
    release(s);
    return nullptr;
  }
  s->row = static_cast<JSAMPLE*>(std::malloc(size_t(s->width) * size_t(s->components)));
  s->file = std::fopen(name, "wb");
  if (!s->row || !s->file) {
    fail(error, size, "%s", s->file ? "out of memory" : std::strerror(errno));
    release(s);
    return nullptr;
  }
  int quality = int(pxfplugin::setting(settings, pxfplugin::kQualityCode, 90.0f));
  float dpi = pxfplugin::setting(settings, pxfplugin::kDpiCode, 0.0f);
  if (!startWriting(s, quality < 1 ? 1 : quality > 100 ? 100 : quality, dpi)) {
    fail(error, size, "%s", s->errors.message);
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

int writeRow(void* state, int32_t row, const void* const* channels, char* error, size_t size) {
  auto* s = static_cast<State*>(state);
  if (s->height - 1 - row != s->next) return fail(error, size, "rows are written from the top down only");
  pxfplugin::interleave(channels, 0, s->components, 1, s->row, s->width, s->components);
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
    if (s->next != s->height) rc = fail(error, size, "only %d of %d rows were written", s->next, s->height);
    else if (!finish(s)) rc = fail(error, size, "%s", s->errors.message);
    if (pxfplugin::closeWritten(s->file, error, size) != 0) rc = -1;
  }
  release(s);
  return rc;
}

const PxfCapability kCapabilities[] = {
    {pxfplugin::kDpiCode, "DPI Resolution", 1, 2},
    {pxfplugin::kQualityCode, "Quality", 1, 2},
};

}  // namespace

PXF_IMAGE_PLUGIN("jpg", "jpg;jpeg", "JPEG", "JPEG pictures, 8 bits, grey and RGB",
                 (PxfPluginOps{PXF_PLUGIN_VERSION, sizeof(PxfPluginOps), 2u, 1u << 7, 0u, 0u, 0u, 0, true, true,
                               kCapabilities, 2, recognise, openRead, nullptr, readRow, openWrite, nullptr, writeRow,
                               closeFile}));
