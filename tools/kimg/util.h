// Helpers shared by kimg's commands.
#pragma once

#include <cstdint>
#include <string>

struct TformatInfo;

namespace kimg {

// Exit statuses: a failed operation, and a command line that is wrong.
constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Prints "kimg: FILE: WHY" and gives kFailed.
int fail(const std::string& file, const std::string& why);
// The same, for a reason that names `path`, the file kimg opened for `file`.
int failFrom(const std::string& file, const std::string& path, const std::string& why);
int failCode(const std::string& file, int code);
// Prints "kimg: WHY" with a pointer to the help, and gives kUsage.
int usage(const std::string& why);

// The last message the library reported (SGI reading, the front door), or
// empty; each call takes it away. `fallback` stands in for none.
std::string takeReport(const std::string& fallback);
void installReporter();

// Compression by name ("none", "rle", "qrl", "qr4") and back.
bool compressionNumber(const std::string& name, uint32_t& number);
std::string compressionName(uint32_t number);

// "WxH", "X,Y", "N:D".
bool parsePair(const std::string& text, char separator, int& a, int& b);
// "WxH" with both from 1 to `most`.
bool parseSize(const std::string& text, int& w, int& h, int most = 32768);

std::string tagText(uint32_t tag);

// The format kimg writes `name` in: `forced` (a catalogue key, or "iff")
// if given, else the one its extension says, IFF for none. False, with the
// reason, for a format kimg cannot write.
bool outputFormat(const std::string& name, const std::string& forced, TformatInfo& format, std::string& why);

}  // namespace kimg
