// Frame sequences: one file of a numbered series and a pattern with "#"
// marks in one dot-separated component ("name.####.iff" padded to four
// digits, "name.#.iff" unpadded) give the name of any other frame.
#pragma once

#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class KELP_API TimageSequence {
 public:
  TimageSequence() = default;

  // Matches `fileName` against `format`; throws the integer 1 (and leaves
  // the object reset) when either is empty or they do not match.
  void setFileNameAndFormat(const Tstring& fileName, const Tstring& format);
  // Whether `name` is a frame of the format; the hash count adds up over
  // calls until the next setFileNameAndFormat.
  bool doesNameMatchFormat(const Tstring& name);
  // The name of frame `frame` (plus the offset); empty when not matched.
  Tstring atFrame(int frame);
  Tstring nextFrame(int frame) { return atFrame(frame + 1); }
  void setOffset(int offset) { fOffset = offset; }

  bool isValid() const { return fValid; }
  int hashComponent() const { return fHashComponent; }
  int hashCount() const { return fHashCount; }
  const Tstring& numberText() const { return fNumberText; }

  // A list of formats kept for the host; the matching does not read it.
  static void setFileNameFormats(const TstringArray& formats);
  static void getFileNameFormats(TstringArray& formats);

 private:
  void init();
  bool checkForNumber(const Tstring& text, Tstring& number);

  Tstring fFileName;
  Tstring fFormat;
  Tstring fNumberText;
  int fOffset = 0;
  int fHashComponent = -1;
  int fHashCount = 0;
  bool fValid = false;

  static TstringArray fsFileFormatList;
};
