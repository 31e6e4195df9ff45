// The one table of every format the library knows: IFF and SGI (its own),
// Photoshop documents, and each plug-in's format as it is found. Telling a
// file by its bytes, choosing a writer by a name's extension or a key, and
// listing the formats all ask it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kelpimage/io/tsampletype.h"
#include "kelpimage/kelpexport.h"

class TinputStream;

// A writer's option: a number from minimum to maximum ("Quality", "Compression").
struct KELP_API TformatOption {
  std::string name;
  double minimum = 0.0, maximum = 0.0, fallback = 0.0;
  std::string help;  // what the values mean
};

struct KELP_API TformatInfo {
  std::string key;   // "kelp", "sgi", "psd", "png"...
  std::string name;  // "IFF", "PNG"...
  std::string description;
  std::vector<std::string> extensions;  // lower case, without the dot; the first is the usual one
  bool canRead = false, canWrite = false;
  bool builtIn = false;     // read and written by the library's own code, not a plug-in
  unsigned readTypes = 0;   // TsampleBit of the samples its files hold
  unsigned writeTypes = 0;  // TsampleBit of the samples it writes
  bool alpha = false, depth = false, grey = true;
  bool frames = false;  // several pictures in one file
  // Its frames after the first are the first's layers, not pictures of
  // their own: a conversion takes the first (the flattened image).
  bool layers = false;
  bool tiles = false, resolution = false, fields = false;
  bool writesIndexes = false;  // a palette of the colour cube, written from colour
  // The association of the colour its files hold. anyAssociation: the
  // writer keeps what it is given, and says which.
  Tassociation association = Tassociation::kStraight;
  bool anyAssociation = false;
  std::vector<TformatOption> options;
  std::string path;  // the plug-in's file, for plug-in formats

  bool reads(TsampleType t) const { return readTypes & TsampleBit(t); }
  bool writes(TsampleType t) const { return writeTypes & TsampleBit(t); }
  const TformatOption* option(const std::string& name) const;  // case does not matter
  // Whether the writer takes this option at this value; false, with why.
  bool checkOption(const std::string& name, double value, std::string& why) const;
  // The sample type it writes nearest to `t`: `t` itself, else the widest it
  // writes that keeps the most (floats for halves, 16 bits for floats...).
  TsampleType nearestWritten(TsampleType t) const;
};

class KELP_API TformatCatalogue {
 public:
  // Every format, the library's own first; plug-ins are looked for at the
  // first call.
  static std::vector<TformatInfo> formats();
  static bool find(const std::string& key, TformatInfo& info);
  // By a file name's extension (case does not matter); false for none.
  static bool forName(const std::string& name, TformatInfo& info);
  static bool forExtension(const std::string& extension, TformatInfo& info);
  // By the first bytes of a file (64 are enough): formats with a signature
  // first, then those whose headers only make sense. False for none.
  static bool identify(const uint8_t* bytes, size_t count, TformatInfo& info);
  // The key of what `bytes` are, or empty.
  static std::string identifyKey(const uint8_t* bytes, size_t count);
};
