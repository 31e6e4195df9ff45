#include "kelpimage/photoshop/psdstream.h"

namespace zkPhotoshop {

void damaged(const std::string& reason) { throw TpsdDamaged{reason}; }

bool TpsdStream::open(const Tstring& path) {
  fFile.reset(path.isEmpty() ? nullptr : std::fopen(path.asChar(), "rb"));
  if (!fFile) return false;
  std::setvbuf(fFile.get(), nullptr, _IOFBF, 1 << 16);
  if (std::fseek(fFile.get(), 0, SEEK_END) != 0) return false;
  fSize = std::ftell(fFile.get());
  fPosition = 0;
  return fSize >= 0 && std::fseek(fFile.get(), 0, SEEK_SET) == 0;
}

void TpsdStream::require(uint64_t count, const char* what) const {
  if (fPosition < 0 || count > uint64_t(remaining()))
    damaged(std::string("truncated: ") + what + " needs " + std::to_string(count) + " bytes at offset " +
            std::to_string(fPosition) + ", " + std::to_string(remaining() < 0 ? 0 : remaining()) + " remain");
}

void TpsdStream::read(void* dst, size_t count) {
  require(count, "data");
  if (count && std::fread(dst, 1, count, fFile.get()) != count) damaged("cannot be read");
  fPosition += int64_t(count);
}

uint8_t TpsdStream::u8() {
  uint8_t b;
  read(&b, 1);
  return b;
}

uint16_t TpsdStream::u16() {
  uint8_t b[2];
  read(b, 2);
  return uint16_t(b[0] << 8 | b[1]);
}

uint32_t TpsdStream::u32() {
  uint8_t b[4];
  read(b, 4);
  return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

std::vector<uint8_t> TpsdStream::bytes(uint64_t count, size_t extra, const char* what) {
  require(count, what);
  std::vector<uint8_t> out(size_t(count) + extra);
  read(out.data(), size_t(count));
  return out;
}

void TpsdStream::skip(int64_t count) {
  if (count < 0 && -count > fPosition) damaged("a length leads before the start of the file");
  if (count > 0) require(uint64_t(count), "skipped data");
  seek(fPosition + count);
}

void TpsdStream::seek(int64_t position) {
  if (position < 0 || position > fSize) damaged("an offset lies outside the file");
  if (std::fseek(fFile.get(), long(position), SEEK_SET) != 0) damaged("cannot be read");
  fPosition = position;
}

uint32_t TpsdStream::peek32() {
  if (remaining() < 4) return 0;
  uint32_t v = u32();
  seek(fPosition - 4);
  return v;
}

uint32_t skipBlockPad(TpsdStream& s, int64_t end) {
  uint32_t pad = 0;
  for (; pad < 4 && end - s.tell() >= 4 && !isBlockSignature(s.peek32()); ++pad) s.skip(1);
  return pad;
}

}  // namespace zkPhotoshop
