// Pixel bytes into channels: the flattened image at the end of the file,
// the alpha channels behind its colour planes, and the layers' channels.
// The bytes are kept as the file has them and expanded on demand.
#include <algorithm>

#include "kelpimage/photoshop/channelwork.h"
#include "kelpimage/photoshop/psdguard.h"
#include "kelpimage/photoshop/psdstream.h"
#include "kelpimage/photoshop/tpsdfile.h"

namespace zkPhotoshop {

namespace {

// The sum of a table of big-endian 16-bit row lengths.
uint32_t sumRows(const std::vector<uint8_t>& table, uint32_t rows) {
  uint32_t sum = 0;
  for (uint32_t y = 0; y < rows; ++y) sum += uint32_t(table[2 * y]) << 8 | table[2 * y + 1];
  return sum;
}

void checkPlausible(const Tchannel& ch, PHOTOSHOP_CHANNEL id, const char* owner) {
  if (!ch.plausible())
    damaged(std::string(owner) + " channel " + std::to_string(id) + " (compression " + std::to_string(ch.fCompression) +
            ", " + std::to_string(ch.fDataLength) + " bytes) cannot hold " + std::to_string(ch.fWidth) + " x " +
            std::to_string(ch.fHeight) + " samples");
}

// Channels past 2^31 samples are beyond any document and beyond the
// channel's 32-bit counts.
void checkSize(int64_t w, int64_t h, const TpsdLayer& layer) {
  if (w * h >= (int64_t(1) << 31))
    damaged("layer \"" + layer.fName.str() + "\" is " + std::to_string(w) + " x " + std::to_string(h) +
            " pixels, past what a channel holds");
}

}  // namespace

TpixelData16* TpsdFile::getCompositePixData(TdataFormat format) {
  if (!fCompositePixels) fCompositePixels = std::make_unique<TpixelData16>(format, fImageWidth, fImageHeight, false);
  return fCompositePixels.get();
}

bool TpsdFile::readImageData(TpsdStream& s, int compression) {
  switch (compression) {
    case compressionRaw: return readRawImageData(s);
    case compressionRLE: return readRLEImageData(s);
    default: return false;
  }
}

bool TpsdFile::readRawPlane(TpsdStream& s, PHOTOSHOP_CHANNEL id, uint64_t plane) {
  Tchannel* ch = fCompositePixels->channel(id);
  if (!ch) return false;
  ch->fCompression = compressionRaw;
  ch->setCompressed(s.bytes(plane, 1, "a plane of the flattened image"), uint32_t(plane));
  return true;
}

bool TpsdFile::readRawImageData(TpsdStream& s) {
  if (fImageWidth == 0 || fImageHeight == 0) return false;
  TpixelData16* pixels = getCompositePixData(fDataFormat);
  pixels->initialize(uint16_t(pixels->getMaxColor()), uint16_t(pixels->getMaxColor()));
  uint64_t plane = uint64_t(fImageWidth) * fImageHeight * bytesOf(fDataFormat);
  int n = fChannelCount < 4 ? fChannelCount : 3;
  s.require(plane * uint64_t(n), "the flattened image");
  for (int id = 0; id < n; ++id) readRawPlane(s, id, plane);
  return true;
}

bool TpsdFile::readRLEImageData(TpsdStream& s) {
  if (fImageWidth == 0 || fImageHeight == 0) return false;
  uint64_t tableBytes = uint64_t(fImageHeight) * 2;
  s.require(tableBytes * fChannelCount, "the row tables of the flattened image");
  int64_t dataStart = s.tell() + int64_t(tableBytes) * fChannelCount;
  TpixelData16* pixels = getCompositePixData(fDataFormat);
  pixels->initialize(uint16_t(pixels->getMaxColor()), uint16_t(pixels->getMaxColor()));
  int n = fChannelCount < 4 ? fChannelCount : 3;
  for (int id = 0; id < n; ++id) {
    Tchannel* ch = pixels->channel(id);
    ch->fRowLengths = s.bytes(tableBytes, 1, "a row table");
    ch->fDataLength = sumRows(ch->fRowLengths, fImageHeight);
  }
  s.seek(dataStart);
  for (int id = 0; id < n; ++id) {
    Tchannel* ch = pixels->channel(id);
    uint32_t length = ch->fDataLength;
    ch->fCompression = compressionRLE;
    ch->setCompressed(s.bytes(length, 1, "a channel of the flattened image"), length);
    checkPlausible(*ch, id, "flattened image");
  }
  return true;
}

std::unique_ptr<TpixelData16> TpsdFile::readAllImagePlanes() {
  TpsdStream s;
  if (!openAndReadStart(s)) return nullptr;
  seekToImageData(s);
  if (fImageWidth == 0 || fImageHeight == 0) {
    fail("the document has no pixels");
    return nullptr;
  }
  if (fImageCompression != compressionRaw && fImageCompression != compressionRLE) {
    fail("the flattened image is stored with compression " + std::to_string(fImageCompression) +
         ", which cannot be read");
    return nullptr;
  }
  auto planes = std::make_unique<TpixelData16>(fDataFormat);
  uint64_t plane = uint64_t(fImageWidth) * fImageHeight * bytesOf(fDataFormat);
  uint64_t tableBytes = uint64_t(fImageHeight) * 2;
  for (int id = 0; id < fChannelCount; ++id) {
    Tchannel* ch = planes->addChannel(id, fImageWidth, fImageHeight, 0);
    ch->fCompression = fImageCompression;
    if (fImageCompression == compressionRLE) {
      ch->fRowLengths = s.bytes(tableBytes, 1, "a row table");
      ch->fDataLength = sumRows(ch->fRowLengths, fImageHeight);
    } else {
      ch->fDataLength = uint32_t(plane);
    }
  }
  for (int id = 0; id < fChannelCount; ++id) {
    Tchannel* ch = planes->channel(id);
    uint32_t length = ch->fDataLength;
    ch->setCompressed(s.bytes(length, 1, "a channel of the flattened image"), length);
    checkPlausible(*ch, id, "flattened image");
    ch->rawPointer();
    if (ch->expandFailed()) damaged("channel " + std::to_string(id) + " of the flattened image is damaged");
  }
  return planes;
}

void TpsdFile::seekToImageData(TpsdStream& s) {
  fLayerMaskSize = s.i32();
  if (fLayerMaskSize < 0) damaged("the layer and mask section has a negative length");
  s.skip(fLayerMaskSize);
  recomputeLayerSize();
  fImageCompression = s.u16();
}

bool TpsdFile::readFlattenedImage(TrgbaData*& out) {
  out = nullptr;
  return guarded(
      [&] {
        TpsdStream s;
        if (!openAndReadStart(s)) return false;
        seekToImageData(s);
        if (!readImageData(s, fImageCompression) || !fCompositePixels) {
          if (fLastError.isEmpty())
            fail(Tstring("the flattened image is stored with compression ") +
                 Tstring(std::to_string(fImageCompression)) + Tstring(", which cannot be read"));
          return false;
        }
        out = new TrgbaData(fImageWidth, fImageHeight, fCompositePixels.get(),
                            uint16_t(fChannelCount < 4 ? fChannelCount : 3), true);
        return true;
      },
      false);
}

bool TpsdFile::getCompositeImage(TrgbaData*& out) {
  if (!fComposite) {
    TrgbaData* read = nullptr;
    if (!readFlattenedImage(read)) {
      out = nullptr;
      return false;
    }
    fComposite.reset(read);
    lendSpareBuffers(read->pixels16());
  }
  out = fComposite.get();
  return true;
}

bool TpsdFile::readAlpha(TrgbaData*& out, int index) {
  out = nullptr;
  TpsdStream s;
  if (!openAndReadStart(s)) return false;
  if (fChannelCount < 4 || index < 0 || index >= fChannelCount - 3) {
    fail(Tstring("has no alpha channel ") + Tstring(std::to_string(index)));
    return false;
  }
  seekToImageData(s);
  if (!readAlphaChannelData(s, fImageCompression, index)) {
    fail(Tstring("the alpha channels cannot be read"));
    return false;
  }
  out = new TrgbaData(fImageWidth, fImageHeight, fCompositePixels.get(), 1, true);
  return true;
}

bool TpsdFile::getAlphaChannelMap(TrgbaData*& out, int index) {
  return guarded([&] { return readAlpha(out, index); }, false);
}

bool TpsdFile::readAlphaChannelData(TpsdStream& s, int compression, int index) {
  switch (compression) {
    case compressionRaw: return readRawAlphaChannelData(s, index);
    case compressionRLE: return readRLEAlphaChannelData(s, index);
    default: return false;
  }
}

bool TpsdFile::readRawAlphaChannelData(TpsdStream& s, int index) {
  if (fImageWidth == 0 || fImageHeight == 0) return false;
  TpixelData16* pixels = getCompositePixData(fDataFormat);
  uint64_t plane = uint64_t(fImageWidth) * fImageHeight * bytesOf(fDataFormat);
  s.skip(int64_t(plane) * 3);
  if (index >= -4 && index <= -1) return true;
  for (int id = 3; id <= index + 3; ++id) {
    Tchannel* ch = pixels->channel(id);
    if ((ch && ch->hasCompressed()) || id < index + 3) {
      s.skip(int64_t(plane));
      continue;
    }
    pixels->addChannel(id, fImageWidth, fImageHeight, 0);
    readRawPlane(s, id, plane);
  }
  return true;
}

bool TpsdFile::readRLEAlphaChannelData(TpsdStream& s, int index) {
  if (fImageWidth == 0 || fImageHeight == 0 || fChannelCount < 4 || index >= fChannelCount - 3 || index < 0)
    return false;
  uint64_t tableBytes = uint64_t(fImageHeight) * 2;
  int64_t start = s.tell();
  TpixelData16* pixels = getCompositePixData(fDataFormat);
  for (int id = 0; id <= index + 3; ++id) {
    Tchannel* ch = pixels->channel(id);
    if (ch && !ch->fRowLengths.empty()) {
      s.skip(int64_t(tableBytes));
      continue;
    }
    if (!ch) ch = pixels->addChannel(id, fImageWidth, fImageHeight, 0);
    ch->fCompression = compressionRLE;
    ch->fRowLengths = s.bytes(tableBytes, 1, "a row table");
    ch->fDataLength = sumRows(ch->fRowLengths, fImageHeight);
  }
  int64_t at = start + int64_t(tableBytes) * fChannelCount;
  for (int id = 0; id < 3; ++id) at += pixels->channelDataLength(id);
  s.seek(at);
  for (int id = 3; id <= index + 3; ++id) {
    Tchannel* ch = pixels->channel(id);
    uint32_t length = ch->fDataLength;
    if (ch->hasCompressed()) {
      s.skip(length);
      continue;
    }
    ch->setCompressed(s.bytes(length, 1, "an alpha channel"), length);
    checkPlausible(*ch, id, "alpha");
  }
  return true;
}

// Each channel takes exactly the bytes its record gives it, whatever it
// keeps of them, so the next channel is always read from its own place.
void TpsdFile::readChannelDataForLayer(TpsdStream& s, TpsdLayer& layer) {
  if (layer.fPixels) return;
  int64_t w = layer.width(), h = layer.height();
  checkSize(w, h, layer);
  // Every channel a layer makes is at most as large as its rectangle, and
  // the rectangle no larger than its largest channel's bytes can expand to
  // (deflate's limit): a record cannot make memory out of nothing.
  uint64_t largest = 0;
  for (const TpsdChannelInfo& info : layer.fChannels) largest = std::max<uint64_t>(largest, info.length);
  if (uint64_t(w * h) * bytesOf(fDataFormat) > largest * 1032 + 4096)
    damaged("layer \"" + layer.fName.str() + "\" is larger than its channel data can hold");
  if (w && h) layer.fPixels = std::make_unique<TpixelData16>(fDataFormat, uint32_t(w), uint32_t(h), false);
  for (TpsdChannelInfo& info : layer.fChannels) {
    if (info.length < 2)
      damaged("channel " + std::to_string(info.id) + " of layer \"" + layer.fName.str() +
              "\" is shorter than its compression word");
    int64_t next = s.tell() + info.length;
    int32_t compression = s.u16();
    info.compression = uint32_t(compression);
    uint32_t size = info.length - 2;
    int64_t cw = w, ch = h;
    uint16_t fill = 0;
    if (info.id == channelUserMask || info.id == channelRealUserMask) {
      const TlRect& r = info.id == channelUserMask ? layer.fMaskRect : layer.fRealRect;
      fill = info.id == channelUserMask ? layer.fMaskDefault : layer.fRealDefault;
      int64_t mh = int64_t(r.bottom) - r.top;
      if (mh <= 0) {
        // No mask rectangle: the mask is its default colour over the layer.
        if (w && h) {
          if (!layer.fPixels) layer.fPixels = std::make_unique<TpixelData16>(fDataFormat);
          layer.fPixels->addChannel(info.id, uint32_t(w), uint32_t(h), fill);
        }
        info.data = s.bytes(size, 0, "a layer channel");
        continue;
      }
      cw = int64_t(r.right) - r.left;
      ch = mh;
      checkSize(cw, ch, layer);
      fill = 0;
    }
    if (info.id < channelRealUserMask || info.id > channelBlue || !cw || !ch) {
      // Not a channel the layer's pixels hold: its bytes are kept as they are.
      info.data = s.bytes(size, 0, "a layer channel");
      continue;
    }
    if (!layer.fPixels) layer.fPixels = std::make_unique<TpixelData16>(fDataFormat);
    Tchannel* channel = layer.fPixels->channel(info.id);
    if (!channel || info.id < 0) channel = layer.fPixels->addChannel(info.id, uint32_t(cw), uint32_t(ch), fill);
    channel->fCompression = compression;
    channel->setCompressed(s.bytes(size, 1, "a layer channel"), size);
    checkPlausible(*channel, info.id, ("layer \"" + layer.fName.str() + "\"").c_str());
    s.seek(next);
  }
}

bool TpsdFile::readAllChannelInformation() {
  return guarded(
      [&] {
        TpsdStream s;
        if (!walkLayers(s)) return s.isOpen() && fLastError.isEmpty();
        if (fChannelDataOffset == 0) return fLayers.empty();  // a layer section with no layers
        s.seek(fChannelDataOffset);
        for (const auto& layer : fLayers) {
          if (layer->fState == 1) continue;  // made by an edit: not in the file
          if (layer->fPixels) {
            s.skip(int64_t(layer->channelBytes()));
            continue;
          }
          readChannelDataForLayer(s, *layer);
        }
        return true;
      },
      false);
}

bool TpsdFile::loadLayer(TpsdLayer& layer) {
  if (!layer.fPixels && layer.fState == 1) return true;  // made by an edit with no pixels: nothing to read
  if (!layer.fPixels) {
    TpsdStream s;
    if (!walkLayers(s) || fChannelDataOffset == 0) {
      if (fLastError.isEmpty()) fail("has no layers");
      return false;
    }
    int64_t at = fChannelDataOffset;
    for (const auto& other : fLayers) {
      if (other.get() == &layer) break;
      if (other->fState != 1) at += int64_t(other->channelBytes());
    }
    s.seek(at);
    readChannelDataForLayer(s, layer);
  }
  lendSpareBuffers(layer.fPixels.get());
  if (!layer.expandChannels(fThreads)) {
    fail(Tstring("the pixels of layer \"") + layer.fName + Tstring("\" are damaged"));
    return false;
  }
  return true;
}

TpixelData16* TpsdFile::layerPixels(TpsdLayer& layer) {
  return guarded([&]() { return loadLayer(layer) ? layer.fPixels.get() : nullptr; },
                 static_cast<TpixelData16*>(nullptr));
}

bool TpsdFile::getLayerImage(const Tstring& name, TrgbaData*& out) {
  out = nullptr;
  return guarded(
      [&] {
        TpsdStream s;
        if (!walkLayers(s)) {
          if (s.isOpen()) return false;
          fLastError = Tstring();  // a file that cannot be opened gives no image, and true
          return true;
        }
        if (fChannelDataOffset == 0) return false;
        TpsdLayer* layer = getLayerObjFromName(name);
        if (!layer) {
          fail(Tstring("has no layer \"") + name + Tstring("\""));
          return false;
        }
        if (!layerPixels(*layer)) return false;
        auto canvas = std::make_unique<TpixelData16>(fDataFormat, fImageWidth, fImageHeight, false);
        layer->copyToCanvas(fImageWidth, fImageHeight, *canvas);
        canvas->applyOpacity(layer->fOpacity);
        out = new TrgbaData(fImageWidth, fImageHeight, canvas.release(), layer->fChannelCount, false);
        return true;
      },
      false);
}

}  // namespace zkPhotoshop

namespace zkPhotoshop {

void TpsdFile::releaseLayerPixels(TpsdLayer& layer) {
  constexpr size_t kKept = 16;
  if (!layer.fPixels) return;
  for (auto& [id, ch] : layer.fPixels->fChannels) {
    if (!ch) continue;
    TsampleBuffer buffer = ch->takeRaw();
    if (buffer.capacity() && fSpareSamples.size() < kKept) fSpareSamples.push_back(std::move(buffer));
  }
}

// Each channel about to be expanded gets the smallest spare buffer that
// holds it.
void TpsdFile::lendSpareBuffers(TpixelData16* pixels) {
  if (!pixels || fSpareSamples.empty()) return;
  for (auto& [id, ch] : pixels->fChannels) {
    if (!ch || ch->hasRaw() || !ch->hasCompressed()) continue;
    TsampleBuffer* best = nullptr;
    for (TsampleBuffer& b : fSpareSamples)
      if (b.capacity() >= ch->rawBytes() && (!best || b.capacity() < best->capacity())) best = &b;
    if (!best) continue;
    ch->lendBuffer(*best);
    fSpareSamples.erase(fSpareSamples.begin() + (best - fSpareSamples.data()));
  }
}

unsigned TpsdFile::threads() const { return threadsFor(fThreads); }

bool TpsdFile::expandLayerChannels() {
  return guarded(
      [&] {
        std::vector<Tchannel*> channels;
        for (const auto& layer : fLayers)
          if (layer->fPixels)
            for (auto& [id, ch] : layer->fPixels->fChannels)
              if (ch) channels.push_back(ch.get());
        expandInParallel(channels, fThreads);
        for (const auto& layer : fLayers)
          if (layer->fPixels)
            for (auto& [id, ch] : layer->fPixels->fChannels)
              if (ch && ch->expandFailed()) {
                fail(Tstring("the pixels of layer \"") + layer->fName + Tstring("\" are damaged"));
                return false;
              }
        return true;
      },
      false);
}

}  // namespace zkPhotoshop
