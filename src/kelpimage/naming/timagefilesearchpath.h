// Finding the file an image name in a scene stands for: the name may lack
// its frame number's zero padding, its field marker or its ".Z" suffix. The
// name is taken apart into directory, stem, field marker, format extension,
// frame extension and compression suffix, and recombinations are asked of
// the project manager (kelpimage/naming/tprojectmgr.h) in a fixed order: at
// most 40 lookups for a name.
#pragma once

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

struct TcameraTypes {
  // 2 renders the even field, 3 the odd one; any other value, whole frames.
  enum TfieldType { kFrame = 1, kEvenField = 2, kOddField = 3 };
};

class KELP_API TimageFileSearchPath {
 public:
  // The current render's field and its markers (at most 3 characters each,
  // such as ".o" and ".e"), and the output format's extension, which is kept
  // for the host.
  static void initImageFileSearchPath(TcameraTypes::TfieldType field, const Tstring& oddExt, const Tstring& evenExt,
                                      const Tstring& outFormatExt);

  // True when a file was found, with its full name in `expanded`; false
  // with the last name tried there. `expanded` must hold 4096 bytes; longer
  // names are cut. The separators of `name` become "/". With `useFrame`,
  // `frameExt` (".7") is the frame, tried as it stands and with one to four
  // leading zeros.
  static bool expandImageName(char* name, char* expanded, bool useFrame, char* frameExt);
  // The same on strings; `expanded` is set only on success.
  static bool exactImageName(const Tstring& name, Tstring& expanded, bool useFrame, const Tstring& frameExt);

  static TcameraTypes::TfieldType currentField() { return fCurrentField; }
  static const char* outFormatExt() { return fOutFormatExt; }

 private:
  static bool nextFrameExt(char* current, bool useFrame, char* frameExt);
  static bool nextFieldExt(char* current, char* field);
  static bool nextCompressionExt(char* current);

  static TcameraTypes::TfieldType fCurrentField;
  static char fOddFieldExt[4];
  static char fEvenFieldExt[4];
  static char fOutFormatExt[12];
};
