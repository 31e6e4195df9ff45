#include "commands.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "il/il.h"

namespace kimg {
namespace {

int fail(const std::string& file, const std::string& why) {
  std::fprintf(stderr, "kimg: %s: %s\n", file.c_str(), why.c_str());
  return 1;
}

int failCode(const std::string& file, int code) { return fail(file, FLstrerror(code)); }

const char* compressionName(uint32_t n) {
  static const char* const names[] = {"None", "RLE", "QRL", "QR4"};
  return n < 4 ? names[n] : "unknown";
}

std::string tagText(uint32_t tag) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    char c = char(tag >> shift);
    s += std::isprint(static_cast<unsigned char>(c)) ? c : '?';
  }
  return s;
}

std::string valueText(const uint8_t* v, uint32_t n) {
  bool printable = true;
  for (uint32_t i = 0; i < n; ++i) printable = printable && std::isprint(v[i]);
  if (printable) return "\"" + std::string(reinterpret_cast<const char*>(v), n) + "\"";
  std::string hex;
  char b[4];
  for (uint32_t i = 0; i < n && i < 32; ++i) {
    std::snprintf(b, sizeof b, "%02x", v[i]);
    hex += b;
  }
  return (n > 32 ? hex + "..." : hex) + " (" + std::to_string(n) + " bytes)";
}

void printImage(ILimage* im) {
  char type[64];
  ILtypename(im->type, type, sizeof type);
  std::printf("  size         %u x %u\n", im->width, im->height);
  std::printf("  type         %s (%u)\n", type, im->type);
  std::printf("  channel      %u byte%s%s\n", im->bytes, im->bytes == 1 ? "" : "s", im->bytes == 4 ? " (float)" : "");
  std::printf("  compression  %s (%u)\n", compressionName(im->compress), im->compress);
  std::printf("  tiles        %u\n", im->pages);
  std::printf("  origin       %d, %d\n", im->orgx, im->orgy);
  std::printf("  pixel ratio  %u:%u\n", im->prnum, im->prden);
  if (im->dpi > 0.0f) std::printf("  dpi          %g\n", double(im->dpi));
  else std::printf("  dpi          not stored\n");
  std::printf("  version      0x%05x\n", im->version);
  for (FLnode* n = im->fields.head; n; n = n->next) {
    auto* f = reinterpret_cast<ILfield*>(n);
    std::printf("  field %-6s %s\n", tagText(n->type).c_str(), valueText(f->value, f->length).c_str());
  }
}

int infoOne(const std::string& file) {
  ILimage* im = ILopen(file.c_str(), "r");
  if (!im) return failCode(file, flerrno);
  int status = 0;
  for (int index = 1;; ++index) {
    if (!ILgetheader(im)) {
      status = failCode(file, flerrno);
      break;
    }
    std::printf("%s", file.c_str());
    if (index > 1) std::printf(" (image %d)", index);
    std::printf("\n");
    printImage(im);
    if (ILnext(im) != 0) break;
  }
  ILclose(im);
  return status;
}

// Walks the items of the current group, printing one line each.
int walk(FLfile* f, int depth) {
  for (;;) {
    uint32_t tag = 0, size = 0;
    int rc = FLbgnget(f, &tag, &size);
    uint64_t at = FLtell(f);
    std::string indent(size_t(depth) * 2, ' ');
    if (rc == FL_GROUP) {
      uint32_t form = 0;
      if (int r = FLbgnrgroup(f, nullptr, &form)) return r;
      std::printf("%10llu  %s%s %s  size %u\n", static_cast<unsigned long long>(at - 12), indent.c_str(),
                  tagText(tag).c_str(), tagText(form).c_str(), size);
      if (int r = walk(f, depth + 1)) return r;
      FLendrgroup(f);
      continue;
    }
    if (rc != 0) return flerrno;
    std::printf("%10llu  %s%s  size %u\n", static_cast<unsigned long long>(at - 8), indent.c_str(),
                tagText(tag).c_str(), size);
    FLendget(f);
  }
}

uint32_t parseTag(const std::string& s) {
  char t[5] = {' ', ' ', ' ', ' ', 0};
  std::memcpy(t, s.data(), s.size() < 4 ? s.size() : 4);
  return FLmaketag(t);
}

int typeBits(const std::string& s, uint32_t& bits) {
  std::string base = s;
  bits = 0;
  if (!base.empty() && base.back() == 'z') {
    bits |= ILT_DEPTH;
    base.pop_back();
  }
  if (base == "rgb") bits |= ILT_COLOR;
  else if (base == "rgba") bits |= ILT_COLOR | ILT_ALPHA;
  else if (base == "grey" || base == "gray") bits |= 0;
  else if (base == "greya" || base == "graya") bits |= ILT_ALPHA;
  else return -1;
  return 0;
}

}  // namespace

int info(const std::vector<std::string>& files) {
  int status = 0;
  for (const std::string& f : files) status |= infoOne(f);
  return status;
}

int chunks(const std::string& file) {
  FLfile* f = FLsopen(file.c_str(), "r", 0);
  if (!f) return failCode(file, flerrno);
  flerrno = 0;
  int rc = walk(f, 0);
  FLclose(f);
  return rc ? failCode(file, rc) : 0;
}

int create(const CreateOptions& o) {
  int w = 0, h = 0, x = 0, y = 0, num = 0, den = 0;
  if (std::sscanf(o.size.c_str(), "%dx%d", &w, &h) != 2) return fail(o.out, "size must be WxH");
  if (std::sscanf(o.origin.c_str(), "%d,%d", &x, &y) != 2) return fail(o.out, "origin must be X,Y");
  if (std::sscanf(o.ratio.c_str(), "%d:%d", &num, &den) != 2) return fail(o.out, "ratio must be N:D");
  uint32_t type = 0;
  if (typeBits(o.type, type)) return fail(o.out, "unknown type " + o.type);
  const char* names[] = {"none", "rle", "qrl", "qr4"};
  uint32_t compress = 0;
  for (uint32_t i = 0; i < 4; ++i)
    if (o.compression == names[i]) compress = i;

  ILimage* im = ILopen(o.out.c_str(), "w");
  if (!im) return failCode(o.out, flerrno);
  int rc = 0;
  for (int i = 0; i < o.images && !rc; ++i) {
    if (i) rc = ILnext(im);
    if (!rc) rc = ILsetsize(im, w, h);
    if (!rc) rc = ILsettype(im, int32_t(type));
    if (!rc) rc = ILsetbpp(im, o.bytes);
    if (!rc) rc = ILsetcompress(im, compress);
    if (!rc) rc = ILsetorigin(im, x, y);
    if (!rc) rc = ILsetratio(im, num, den);
    im->dpi = o.dpi;
    for (const std::string& field : o.fields) {
      size_t eq = field.find('=');
      if (eq == std::string::npos || eq == 0 || eq > 4) {
        ILclose(im);
        return fail(o.out, "field must be TAG=TEXT: " + field);
      }
      std::string value = field.substr(eq + 1);
      if (!rc) rc = ILsetfield(im, parseTag(field.substr(0, eq)), uint32_t(value.size()), value.data());
    }
    if (!rc) rc = ILputheader(im);
  }
  int closed = ILclose(im);
  if (rc) return failCode(o.out, rc);
  if (closed) return failCode(o.out, closed);
  return 0;
}

}  // namespace kimg
