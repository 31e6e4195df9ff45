// Helpers shared by kimg's commands.
#pragma once

#include <cstdint>
#include <string>

namespace kimg {

// Prints "kimg: FILE: WHY" and gives the exit status 1.
int fail(const std::string& file, const std::string& why);
int failCode(const std::string& file, int code);

// Compression by name ("none", "rle", "qrl", "qr4") and back.
bool compressionNumber(const std::string& name, uint32_t& number);
std::string compressionName(uint32_t number);

// "WxH", "X,Y", "N:D".
bool parsePair(const std::string& text, char separator, int& a, int& b);

std::string tagText(uint32_t tag);

}  // namespace kimg
