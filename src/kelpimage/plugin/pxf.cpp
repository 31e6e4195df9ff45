// The framework itself: the formats the plug-ins bring, and the operations
// the conversions call, each handed to the plug-in that serves the format.
#include "kelpimage/plugin/pxf.h"

#include <dlfcn.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "kelpimage/plugin/pxfinternal.h"
#include "kelpimage/plugin/pxfstreams.h"

namespace {

constexpr size_t kErrorSize = 512;
thread_local char tError[kErrorSize];

void setError(const char* text) { std::snprintf(tError, sizeof tError, "%s", text ? text : ""); }

struct Registry {
  std::mutex lock;
  std::deque<PxfFormat> formats;  // a deque keeps each format where it is
  std::deque<std::string> texts;
};

Registry& registry() {
  static Registry* r = new Registry;  // lives as long as the plug-ins it describes
  return *r;
}

const char* keep(Registry& r, const char* text) {
  if (!text) return nullptr;
  r.texts.emplace_back(text);
  return r.texts.back().c_str();
}

// An exported string of the plug-in, or `fallback`.
const char* pluginStringOr(void* library, const char* name, const char* fallback) {
  const char* text = pluginString(library, name);
  return text ? text : fallback;
}

// What the plug-in files that were not taken were, and why.
struct Problems {
  std::mutex lock;
  std::string text;
};
Problems& problems() {
  static Problems* p = new Problems;
  return *p;
}

}  // namespace

void pxfLoadProblem(const std::string& path, const std::string& why) {
  Problems& p = problems();
  std::lock_guard<std::mutex> guard(p.lock);
  p.text += path + ": " + why + "\n";
}

namespace {

// Enters the format a loaded plug-in serves; false (and a load problem)
// when its interface is another version's.
bool addFormat(void* library, const char* path) {
  const char* key = pluginString(library, "imageKey");
  auto* ops = static_cast<const PxfPluginOps*>(dlsym(library, "imagePlugin"));
  if (!key) return false;
  if (!ops) {
    pxfLoadProblem(path, "the plug-in has no imagePlugin entry point");
    return false;
  }
  if (ops->version != PXF_PLUGIN_VERSION || ops->size != sizeof(PxfPluginOps)) {
    pxfLoadProblem(path, "the plug-in is built for plug-in interface " + std::to_string(ops->version) +
                             ", this library has " + std::to_string(PXF_PLUGIN_VERSION));
    return false;
  }
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  for (const PxfFormat& f : r.formats)
    if (std::strcmp(f.key, key) == 0) return true;  // the first plug-in of a key serves it
  PxfFormat f{};
  f.key = keep(r, key);
  f.name = keep(r, pluginStringOr(library, "imageName", key));
  f.extensions = keep(r, pluginStringOr(library, "imageExtension", ""));
  f.description = keep(r, pluginStringOr(library, "imageDescription", ""));
  f.path = keep(r, path);
  f.orientations = ops->orientations;
  f.depths = ops->depths;
  f.matte = ops->matte;
  f.depth = ops->depth;
  f.depthWidths = ops->depthWidths;
  f.flags = ops->flags;
  f.ops = ops;
  r.formats.push_back(f);
  return true;
}

// The variant a target's name asks for: its extension, lower case, no dot.
std::string variantOf(const char* name) {
  std::string text = name ? name : "";
  size_t slash = text.rfind('/'), dot = text.rfind('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
  std::string ext = text.substr(dot + 1);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

int channelCount(const PxfImageData* image) {
  return image->colorChannels + image->matteChannels + image->depthChannels + image->indexChannels;
}

int32_t channelBits(const PxfImageData* image, int index) {
  if (index < image->colorChannels) return image->colorBits;
  index -= image->colorChannels;
  if (index < image->matteChannels) return image->matteBits;
  index -= image->matteChannels;
  if (index < image->depthChannels) return image->depthBits;
  return image->indexBits;
}

}  // namespace

const char* PXF_last_error() { return tError; }

const char* PXF_load_problems() {
  // Kept per thread, so that the text stays while the caller reads it.
  static thread_local std::string copy;
  Problems& p = problems();
  std::lock_guard<std::mutex> guard(p.lock);
  copy = p.text;
  return copy.c_str();
}

int PXF_init(int, PxfNextPlugin next) {
  void* library = nullptr;
  char* path = nullptr;
  while (next && next(&library, &path))
    if (library && path) addFormat(library, path);
  return 0;
}

int PXF_exit() { return 0; }

PxfFormat* PXF_find(const char* key) {
  if (!key) return nullptr;
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  for (PxfFormat& f : r.formats)
    if (std::strcmp(f.key, key) == 0) return &f;
  return nullptr;
}

PxfFormat* PXF_format(int index) {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  return index >= 0 && size_t(index) < r.formats.size() ? &r.formats[size_t(index)] : nullptr;
}

const char* PXF_get_file_type(const char* path, int, uint8_t* flag) {
  if (flag) *flag = 0;
  FILE* f = path ? std::fopen(path, "rb") : nullptr;
  if (!f) return nullptr;
  uint8_t bytes[64];
  size_t n = std::fread(bytes, 1, sizeof bytes, f);
  std::fclose(f);
  // Formats with a signature first: a guess at a header never claims a file
  // that a signature names.
  for (bool weak : {false, true})
    for (int i = 0; PxfFormat* format = PXF_format(i); ++i)
      if (bool(format->flags & PXF_WEAK_SIGNATURE) == weak && format->ops->canRead && format->ops->recognise &&
          format->ops->recognise(bytes, n))
        return format->key;
  return nullptr;
}

void PXF_info_init(PxfFileInfo* info) {
  if (info) *info = PxfFileInfo{};
}

int PXF_info_get_specific(int, const PxfFormat* format, const PxfCapability** descriptors, void*, void*,
                          int32_t* count) {
  if (!format) return -1;
  if (descriptors) *descriptors = format->ops->capabilities;
  if (count) *count = format->ops->capabilityCount;
  return 0;
}

PxfCapSetting* PXF_cap_setting_alloc(int count) { return new (std::nothrow) PxfCapSetting[count > 0 ? count : 1]{}; }

PxfHandle* pxfOpen(PxfFormat* format, PxfStream* stream, bool writing, const PxfImageData* image,
                   PxfCapSetting* const* settings, const PxfLut* lut) {
  setError("");
  const PxfPluginOps* ops = format->ops;
  if (writing ? !ops->canWrite : !ops->canRead) {
    setError(writing ? "the plug-in does not write this format" : "the plug-in does not read this format");
    return nullptr;
  }
  auto handle = std::make_unique<PxfHandle>();
  auto record = std::make_unique<PxfImageData>();
  handle->format = format;
  handle->writing = writing;
  handle->name = strdup(stream->name ? stream->name : "");
  handle->frameCount = 1;
  if (writing) {
    if (image) *record = *image;
    handle->state = ops->openWrite(stream, record.get(), settings, lut, tError, sizeof tError);
  } else {
    if (image) {
      record->lenient = image->lenient;
      record->wantsFloats = image->wantsFloats;
    }
    handle->state = ops->openRead(stream, record.get(), &handle->frameCount, tError, sizeof tError);
  }
  if (!handle->state) {
    std::free(const_cast<char*>(handle->name));
    return nullptr;
  }
  handle->image = record.release();
  return handle.release();
}

namespace {

// A file a handle opened by name, with the stream the plug-in is given.
struct NamedFile {
  std::unique_ptr<TinputStream> in;
  std::unique_ptr<ToutputStream> out;
  PxfStream stream;
};

}  // namespace

PxfHandle* PXF_open(PxfFileInfo* info, const char* mode) {
  setError("");
  if (!info || !info->name || !mode) return nullptr;
  PxfFormat* format = PXF_find(info->key ? info->key : PXF_get_file_type(info->name, 0, nullptr));
  if (!format) {
    setError("no plug-in reads this format");
    return nullptr;
  }
  bool writing = mode[0] == 'w';
  auto file = std::make_unique<NamedFile>();
  if (writing) {
    // The caller writes under a name of its own and puts the file in place.
    auto out = std::make_unique<TplainFileOutput>(info->name);
    if (!out->isOpen()) {
      setError(out->error().c_str());
      return nullptr;
    }
    file->out = std::move(out);
    file->stream = pxfWriting(*file->out);
  } else {
    auto in = std::make_unique<TfileInput>(info->name);
    if (!in->isOpen()) {
      setError(in->error().c_str());
      return nullptr;
    }
    file->in = std::move(in);
    file->stream = pxfReading(*file->in);
  }
  std::string variant = variantOf(info->extension ? info->extension : info->name);
  PxfImageData image;
  if (info->image) image = *info->image;
  image.variant = variant.empty() ? nullptr : variant.c_str();
  PxfHandle* handle = pxfOpen(format, &file->stream, writing, &image, info->settings, info->lut);
  if (!handle) return nullptr;
  handle->image->variant = nullptr;  // the text is gone with this call
  handle->file = file.release();
  return handle;
}

int PXF_close(PxfHandle* handle) {
  if (!handle) return -1;
  int rc = handle->format->ops->close(handle->state, tError, sizeof tError);
  if (auto* file = static_cast<NamedFile*>(handle->file)) {
    if (file->out && !file->out->finish() && rc == 0) {
      setError(file->out->error().c_str());
      rc = -1;
    }
    delete file;
  }
  std::free(const_cast<char*>(handle->name));
  delete handle->image;
  delete handle;
  return rc;
}

int PXF_set_frame(PxfHandle* handle, int32_t frame) {
  if (!handle) return -1;
  const PxfPluginOps* ops = handle->format->ops;
  if (handle->writing) {
    if (frame != handle->frame && ops->nextFrame &&
        ops->nextFrame(handle->state, handle->image, tError, sizeof tError) == 0)
      handle->frame = frame;
    return handle->frame;
  }
  if (frame >= 0 && frame < handle->frameCount && ops->setFrame &&
      ops->setFrame(handle->state, frame, handle->image, tError, sizeof tError) == 0)
    handle->frame = frame;
  return handle->frame;
}

PxfChannels* PXF_chan_alloc(const PxfImageData* image, int32_t width, const char*, int32_t* count) {
  if (!image || width < 1) return nullptr;
  int n = channelCount(image);
  auto* channels = new (std::nothrow) PxfChannels{n, nullptr};
  if (!channels) return nullptr;
  channels->buffers = new (std::nothrow) void* [size_t(n > 0 ? n : 1)] {};
  bool ok = channels->buffers != nullptr;
  for (int i = 0; ok && i < n; ++i) {
    channels->buffers[i] = std::calloc(size_t(width), size_t(PXF_sample_bytes(channelBits(image, i))));
    ok = channels->buffers[i] != nullptr;
  }
  if (!ok) {
    PXF_chan_free(channels);
    return nullptr;
  }
  if (count) *count = n;
  return channels;
}

void PXF_chan_free(PxfChannels* channels) {
  if (!channels) return;
  for (int i = 0; channels->buffers && i < channels->count; ++i) std::free(channels->buffers[i]);
  delete[] channels->buffers;
  delete channels;
}

int PXF_scan_read(PxfHandle* handle, int32_t row, PxfChannels* channels) {
  if (!handle || handle->writing || !channels) return -1;
  return handle->format->ops->readRow(handle->state, row, channels->buffers, 0, tError, sizeof tError);
}

int PXF_scan_write(PxfHandle* handle, int32_t row, PxfChannels* channels) {
  if (!handle || !handle->writing || !channels) return -1;
  if (!handle->format->ops->writeRow) return PXF_ENOSCAN;
  return handle->format->ops->writeRow(handle->state, row, channels->buffers, 0, tError, sizeof tError);
}

PxfLut* PXF_lut_alloc(int32_t count) {
  auto* lut = new (std::nothrow) PxfLut{nullptr, count};
  if (!lut) return nullptr;
  lut->entries = new (std::nothrow) PxfLutEntry[size_t(count > 0 ? count : 1)]{};
  if (!lut->entries) {
    delete lut;
    return nullptr;
  }
  return lut;
}

void PXF_lut_free(PxfLut* lut) {
  if (!lut) return;
  delete[] lut->entries;
  delete lut;
}

const char* FMT_def_image_data() { return "rgb"; }

void ERR_mask_s(int) {}

std::string withReason(std::string text) {
  const char* why = PXF_last_error();
  if (why && *why) text += std::string(": ") + why;
  return text;
}
