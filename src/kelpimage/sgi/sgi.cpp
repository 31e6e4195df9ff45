// The SGI image library.
#include "kelpimage/sgi/sgi.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/byteorder.h"
#include "kelpimage/il/il.h"
#include "kelpimage/sgi/sgirle.h"

namespace {
constexpr uint16_t kMagic = 474;
constexpr uint32_t kRowsAt = 512;
constexpr uint16_t kRead = 0x01, kWrite = 0x02, kError = 0x20, kReadWrite = 0x80;

void report(const char* format, ...) __attribute__((format(printf, 1, 2)));
void report(const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  TerrorHandler::send(Tstring("SGI image: ") + text);
}

using kelp::swap16;
using kelp::swap32;

unsigned storage(const IMAGE* im) { return im->type & 0xFF00; }
unsigned bpp(const IMAGE* im) { return im->type & 0x00FF; }
size_t tableBytes(const IMAGE* im) { return size_t(im->ysize) * im->zsize * 4; }

// The header as it lies in the file: 108 bytes, big-endian when swapped.
void headerOut(const IMAGE* im, uint8_t* b) {
  auto put16 = [&](size_t at, uint16_t v) { v = im->swapped ? swap16(v) : v, std::memcpy(b + at, &v, 2); };
  auto put32 = [&](size_t at, uint32_t v) { v = im->swapped ? swap32(v) : v, std::memcpy(b + at, &v, 4); };
  std::memset(b, 0, 152);
  put16(0, im->magic);
  put16(2, im->type);
  put16(4, im->dim);
  put16(6, im->xsize);
  put16(8, im->ysize);
  put16(10, im->zsize);
  put32(12, im->min);
  put32(16, im->max);
  put32(20, im->wastebytes);
  std::memcpy(b + 24, im->name, 80);
  put32(104, im->colormap);
}

void headerIn(IMAGE* im, const uint8_t* b) {
  auto get16 = [&](size_t at) {
    uint16_t v;
    std::memcpy(&v, b + at, 2);
    return im->swapped ? swap16(v) : v;
  };
  auto get32 = [&](size_t at) {
    uint32_t v;
    std::memcpy(&v, b + at, 4);
    return im->swapped ? swap32(v) : v;
  };
  im->magic = get16(0);
  im->type = get16(2);
  im->dim = get16(4);
  im->xsize = get16(6);
  im->ysize = get16(8);
  im->zsize = get16(10);
  im->min = get32(12);
  im->max = get32(16);
  im->wastebytes = get32(20);
  std::memcpy(im->name, b + 24, 80);
  im->name[79] = 0;
  im->colormap = get32(104);
}

bool seekTo(IMAGE* im, uint32_t position) {
  if (im->offset == position) return true;
  if (::lseek(im->file, off_t(position), SEEK_SET) < 0) {
    im->offset = 0xFFFFFFFF;
    return false;
  }
  im->offset = position;
  return true;
}

bool readBytes(IMAGE* im, void* dst, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t r = ::read(im->file, static_cast<uint8_t*>(dst) + done, n - done);
    if (r <= 0) break;
    done += size_t(r);
  }
  if (done != n) {
    im->offset = 0xFFFFFFFF;
    return false;
  }
  im->offset += uint32_t(n);
  return true;
}

bool writeBytes(IMAGE* im, const void* src, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t w = ::write(im->file, static_cast<const uint8_t*>(src) + done, n - done);
    if (w <= 0) break;
    done += size_t(w);
  }
  if (done != n) {
    im->offset = 0xFFFFFFFF;
    return false;
  }
  im->offset += uint32_t(n);
  return true;
}

void swapWords(void* p, size_t count) {
  auto* w = static_cast<uint16_t*>(p);
  for (size_t i = 0; i < count; ++i) w[i] = swap16(w[i]);
}

void swapTable(void* p, size_t count) {
  auto* w = static_cast<uint32_t*>(p);
  for (size_t i = 0; i < count; ++i) w[i] = swap32(w[i]);
}

size_t rowIndex(const IMAGE* im, unsigned y, unsigned z) {
  if (im->dim == 1) return 0;
  if (im->dim == 2) return y;
  return y + size_t(z) * im->ysize;
}

int imgSeek(IMAGE* im, unsigned y, unsigned z) {
  if (y >= im->ysize || z >= im->zsize) {
    report("img_seek: row number out of range\n");
    return -1;
  }
  if (im->dim < 1 || im->dim > 3) {
    report("img_seek: weird dim\n");
    return -1;
  }
  im->x = 0;
  im->y = uint16_t(y);
  im->z = uint16_t(z);
  size_t row = rowIndex(im, y, z);
  if (storage(im) == SGI_RLE) return seekTo(im, im->rowstart[row]) ? 0 : -1;
  if (storage(im) == SGI_VERBATIM) return seekTo(im, uint32_t(kRowsAt + row * im->xsize * bpp(im))) ? 0 : -1;
  report("img_seek: weird image type\n");
  return -1;
}

IMAGE* fail(const char* message) {
  report("%s", message);
  return nullptr;
}
}  // namespace

namespace {
uint64_t fileSize(const IMAGE* im) {
  struct stat st;
  return fstat(im->file, &st) == 0 ? uint64_t(st.st_size) : 0;
}

// A header is believed only for pictures within the pixel limit, and a
// verbatim one only when the file holds all its rows.
bool sizeBelievable(const IMAGE* im) {
  uint64_t pixels = uint64_t(im->xsize) * im->ysize;
  if (pixels > ILmaxpixels(0)) {
    report("iopen: image of %u x %u pixels is larger than the limit of %llu pixels\n", im->xsize, im->ysize,
           static_cast<unsigned long long>(ILmaxpixels(0)));
    return false;
  }
  if (storage(im) != SGI_VERBATIM) return true;
  uint64_t need = kRowsAt + pixels * im->zsize * bpp(im), have = fileSize(im);
  if (have < need) {
    report("iopen: file is truncated: %llu bytes where the header asks for %llu\n",
           static_cast<unsigned long long>(have), static_cast<unsigned long long>(need));
    return false;
  }
  return true;
}

// Every run-length row that was written must lie inside the file (a row
// never written has the size -1).
bool rowsInFile(const IMAGE* im, size_t rows) {
  uint64_t have = fileSize(im);
  for (size_t i = 0; i < rows; ++i)
    if (im->rowsize[i] >= 0 && uint64_t(im->rowstart[i]) + uint64_t(im->rowsize[i]) > have) {
      report("iopen: file is truncated or damaged: row %zu lies past its end (%llu bytes)\n", i,
             static_cast<unsigned long long>(have));
      return false;
    }
  return true;
}
}  // namespace

IMAGE* iopen(const char* file, const char* mode, unsigned type, unsigned dim, unsigned xsize, unsigned ysize,
             unsigned zsize) {
  auto* im = static_cast<IMAGE*>(std::calloc(1, sizeof(IMAGE)));
  if (!im) return fail("iopen: error on image struct alloc\n");
  // The record goes with any failure, and so does the descriptor: a failed
  // open leaves nothing behind.
  struct Cleanup {
    IMAGE*& im;
    int fd = -1;
    bool keep = false;
    ~Cleanup() {
      if (keep) return;
      if (fd >= 0) ::close(fd);
      std::free(im->rowstart);
      std::free(im->rowsize);
      std::free(im->tmpbuf);
      std::free(im);
    }
  } cleanup{im};
  if (mode[0] && mode[1] == '+') return fail("iopen: read/write mode not supported\n");
  bool write = mode[0] == 'w';
  uint8_t header[152];
  if (write) {
    cleanup.fd = ::open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (cleanup.fd < 0) {
      report("iopen: can't open output file %s\n", file);
      return nullptr;
    }
    im->file = cleanup.fd;
    im->type = uint16_t(type);
    im->magic = kMagic;
    im->xsize = uint16_t(xsize);
    im->ysize = 1;
    im->zsize = 1;
    if (dim > 1) im->ysize = uint16_t(ysize);
    if (dim > 2) im->zsize = uint16_t(zsize);
    im->dim = im->zsize != 1 ? 3 : im->ysize != 1 ? 2 : 1;
    im->min = 10000000;
    im->max = 0;
    std::strncpy(im->name, "no name", sizeof im->name);
    im->wastebytes = 0;
    im->swapped = 1;
    headerOut(im, header);
    if (!writeBytes(im, header, sizeof header)) return fail("iopen: error on write of image header\n");
  } else {
    cleanup.fd = ::open(file, O_RDONLY | O_CLOEXEC);
    if (cleanup.fd < 0) return nullptr;
    im->file = cleanup.fd;
    if (!readBytes(im, header, sizeof header)) return fail("iopen: error on read of image header\n");
    uint16_t magic;
    std::memcpy(&magic, header, 2);
    if (swap16(magic) == kMagic)
      im->swapped = 1;
    else if (magic == kMagic)
      im->swapped = 0;
    else {
      report("iopen: bad magic in image file %x\n", magic);
      return nullptr;
    }
    headerIn(im, header);
    if (!sizeBelievable(im)) return nullptr;
  }
  im->flags = mode[0] == 'r' ? kRead : kWrite;
  if (storage(im) == SGI_RLE) {
    size_t bytes = tableBytes(im);
    if (!write) {
      // Tables that cannot be in the file are not read, nor memory taken for them.
      struct stat st;
      if (fstat(im->file, &st) != 0 || uint64_t(st.st_size) < kRowsAt + 2 * uint64_t(bytes))
        return fail("iopen: error on read of rowstart\n");
    }
    im->rowstart = static_cast<uint32_t*>(std::malloc(bytes ? bytes : 4));
    im->rowsize = static_cast<int32_t*>(std::malloc(bytes ? bytes : 4));
    if (!im->rowstart || !im->rowsize) return fail("iopen: error on table alloc\n");
    im->rleend = uint32_t(kRowsAt + 2 * bytes);
    if (write) {
      std::memset(im->rowstart, 0, bytes);
      std::memset(im->rowsize, 0xFF, bytes);
    } else {
      if (!seekTo(im, kRowsAt) || !readBytes(im, im->rowstart, bytes))
        return fail("iopen: error on read of rowstart\n");
      if (im->swapped) swapTable(im->rowstart, bytes / 4);
      if (!readBytes(im, im->rowsize, bytes)) return fail("iopen: error on read of rowsize\n");
      if (im->swapped) swapTable(im->rowsize, bytes / 4);
      if (!rowsInFile(im, bytes / 4)) return nullptr;
    }
  }
  im->cnt = 0;
  im->ptr = nullptr;
  im->base = nullptr;
  im->bufsize = (uint32_t(im->xsize >> 6) + im->xsize) * 4 + 8;
  im->tmpbuf = static_cast<uint8_t*>(std::malloc(im->bufsize));
  if (!im->tmpbuf) {
    report("iopen: error on tmpbuf alloc %d\n", im->xsize);
    return nullptr;
  }
  im->x = im->y = im->z = 0;
  im->offset = 0xFFFFFFFF;
  seekTo(im, kRowsAt);
  cleanup.keep = true;
  return im;
}

int getrow(IMAGE* im, uint16_t* buffer, unsigned y, unsigned z) {
  if (!(im->flags & (kRead | kReadWrite))) return -1;
  if (im->dim < 2) y = 0;
  if (im->dim < 3) z = 0;
  imgSeek(im, y, z);  // after an out-of-range row the message stands and the row selected before is read
  unsigned width = bpp(im);
  if (storage(im) == SGI_VERBATIM) {
    if (width == 1) {
      if (!readBytes(im, im->tmpbuf, im->xsize)) {
        report("getrow: error on read of row\n");
        return -1;
      }
      for (unsigned i = 0; i < im->xsize; ++i) buffer[i] = im->tmpbuf[i];
      return im->xsize;
    }
    if (width == 2) {
      if (!readBytes(im, buffer, size_t(im->xsize) * 2)) {
        report("getrow: error on read of row\n");
        return -1;
      }
      if (im->swapped) swapWords(buffer, im->xsize);
      return im->xsize;
    }
    report("getrow: weird bpp\n");
    return -1;
  }
  if (storage(im) == SGI_RLE) {
    if (width != 1 && width != 2) {
      report("getrow: weird bpp\n");
      return -1;
    }
    int32_t length = im->rowsize[rowIndex(im, im->y, im->z)];
    if (length == -1) return -1;
    // A stored length beyond the row buffer is a damaged table: read no more than fits.
    uint32_t n = uint32_t(length) > im->bufsize ? im->bufsize : uint32_t(length);
    if (!readBytes(im, im->tmpbuf, n)) {
      report("getrow: error on read of row\n");
      return -1;
    }
    rleExpand(im->tmpbuf, n, width, buffer, im->xsize);
    return im->xsize;
  }
  report("getrow: weird image type\n");
  return -1;
}

namespace {
int putrowOnce(IMAGE* im, const uint16_t* buffer, unsigned y, unsigned z) {
  if (im->dim < 2) y = 0;
  if (im->dim < 3) z = 0;
  unsigned width = bpp(im);
  bool verbatim1 = storage(im) == SGI_VERBATIM && width == 1;
  for (unsigned i = 0; i < im->xsize; ++i) {
    uint32_t v = verbatim1 ? (buffer[i] & 0xFF) : buffer[i];
    if (v < im->min) im->min = v;
    if (v > im->max) im->max = v;
    if (verbatim1) im->tmpbuf[i] = uint8_t(buffer[i]);
  }
  if (storage(im) == SGI_RLE) {
    if (width != 1 && width != 2) {
      report("putrow: weird bpp\n");
      return -1;
    }
    size_t units = rleCompact(buffer, im->xsize, width, im->tmpbuf);
    uint32_t length = uint32_t(units * width);
    if (y < im->ysize && z < im->zsize) {
      size_t row = rowIndex(im, y, z);
      im->rowstart[row] = im->rleend;
      if (im->rowsize[row] != -1) im->wastebytes += uint32_t(im->rowsize[row]);
      im->rowsize[row] = int32_t(length);
      im->rleend += length;
    }
    if (imgSeek(im, y, z) != 0) return -1;
    if (!writeBytes(im, im->tmpbuf, length)) {
      report("putrow: error on write of row\n");
      return -1;
    }
    return im->xsize;
  }
  if (storage(im) == SGI_VERBATIM) {
    if (width != 1 && width != 2) {
      report("putrow: weird bpp\n");
      return -1;
    }
    imgSeek(im, y, z);
    bool ok;
    if (width == 1) {
      ok = writeBytes(im, im->tmpbuf, im->xsize);
    } else {
      // Big-endian words go out from a copy, so the caller's row is never touched.
      std::vector<uint16_t> words(buffer, buffer + im->xsize);
      if (im->swapped) swapWords(words.data(), words.size());
      ok = writeBytes(im, words.data(), words.size() * 2);
    }
    if (!ok) {
      report("putrow: error on write of row\n");
      return -1;
    }
    return im->xsize;
  }
  report("putrow: weird image type\n");
  return -1;
}

// The header and, for run-length files, the row tables, at the end of a write.
bool writeHeaderAndTables(IMAGE* im) {
  uint8_t header[152];
  headerOut(im, header);
  if (!seekTo(im, 0) || !writeBytes(im, header, sizeof header)) {
    report("iclose: error on write of image header\n");
    return false;
  }
  if (storage(im) != SGI_RLE) return true;
  size_t bytes = tableBytes(im);
  std::vector<uint32_t> table(im->rowstart, im->rowstart + bytes / 4);
  if (im->swapped) swapTable(table.data(), table.size());
  if (!seekTo(im, kRowsAt) || !writeBytes(im, table.data(), bytes)) {
    report("iclose: error on write of rowstart\n");
    return false;
  }
  std::memcpy(table.data(), im->rowsize, bytes);
  if (im->swapped) swapTable(table.data(), table.size());
  if (!writeBytes(im, table.data(), bytes)) {
    report("iclose: error on write of rowsize\n");
    return false;
  }
  return true;
}
}  // namespace

int putrow(IMAGE* im, const uint16_t* buffer, unsigned y, unsigned z) {
  if (!(im->flags & (kWrite | kReadWrite))) return -1;
  int written = putrowOnce(im, buffer, y, z);
  // A row that did not reach the file makes the whole file fail at iclose.
  if (written < 0) im->flags |= kError;
  return written;
}

// A file that was written fails to close when any row, the header or a table
// did not reach it; the record is freed either way.
int iclose(IMAGE* im) {
  if (!im) return -1;
  bool ok = !(im->flags & kError);
  if (im->flags & kWrite) ok = writeHeaderAndTables(im) && ok;
  std::free(im->base);
  std::free(im->tmpbuf);
  std::free(im->rowstart);
  std::free(im->rowsize);
  int rc = ::close(im->file);
  if (rc != 0) report("iclose: error on close of file\n");
  std::free(im);
  return ok && rc == 0 ? 0 : -1;
}
