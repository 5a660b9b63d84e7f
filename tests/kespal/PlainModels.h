#pragma once

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "kespal/Helper.h"

/// The wording of each text operation, without regard to speed: what tests and fuzz targets compare with.
namespace kes::test {

using Parts = std::vector<std::string>;
using Bytes = std::basic_string<unsigned char>;

inline Parts plainSplit(const std::string& text, char delimiter, bool strip, bool keepEmpty) {
  Parts parts(1);
  for (const char c : text) {
    if (c == delimiter) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  if (strip) {
    for (std::string& part : parts) helper::makeStripped(part, 0);
  }
  if (!keepEmpty) std::erase(parts, "");
  return parts;
}

inline std::size_t plainReplace(std::string& text, const std::string& pattern,
                                const std::string& replacement) {
  std::size_t count = 0;
  if (pattern.empty()) return count;
  for (std::size_t at = 0; (at = text.find(pattern, at)) != text.npos; at += replacement.size(), ++count) {
    text.replace(at, pattern.size(), replacement);
  }
  return count;
}

inline std::size_t plainReplaceChars(std::string& text, const std::string& chars,
                                     const std::string& replacement) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find_first_of(chars, at)) != text.npos;
       at += replacement.size(), ++count) {
    text.replace(at, 1, replacement);
  }
  return count;
}

/// from_hex(): lower case, separators removed, two characters at a time through strtol.
inline Bytes plainFromHex(std::string digits) {
  std::erase_if(digits, [](char c) { return c == ':' || c == ' ' || c == '\t' || c == '\n'; });
  for (char& c : digits) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (digits.size() % 2 != 0) return {};
  Bytes bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    const std::string pair = digits.substr(at, 2);
    char* end = nullptr;
    bytes += static_cast<unsigned char>(std::strtol(pair.c_str(), &end, 16));
    if (end != pair.c_str() + 2) return {};
  }
  return bytes;
}

}  // namespace kes::test
