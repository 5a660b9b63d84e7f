#include "kespal/Helper.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string_view>

namespace kes {

void demangle(std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> text(
      abi::__cxa_demangle(name.c_str(), nullptr, nullptr, nullptr), std::free);
  if (text) name = text.get();
}

}  // namespace kes

namespace kes::helper {

namespace {

/// A set of characters with a look-up as fast as one load.
class CharSet {
 public:
  explicit CharSet(std::string_view chars) {
    for (char c : chars) members_[static_cast<unsigned char>(c)] = true;
  }
  bool contains(char c) const { return members_[static_cast<unsigned char>(c)]; }

 private:
  std::array<bool, 256> members_{};
};

/// Closes the gaps in place: a character that goes is overwritten by the next one that stays.
std::size_t deleteChars(std::string& text, std::string_view unwanted) {
  std::array<unsigned char, 256> stays;  // added to a position: no jump that depends on the text
  stays.fill(1);
  for (char c : unwanted) stays[static_cast<unsigned char>(c)] = 0;
  const std::size_t before = text.size();
  char* end = text.data();
  for (char c : text) {
    *end = c;
    end += stays[static_cast<unsigned char>(c)];
  }
  text.resize(static_cast<std::size_t>(end - text.data()));
  return before - text.size();
}

/// How many pieces split() will find, so that an empty vector grows only once.
std::size_t countPieces(const std::string& text, char delimiter, bool keepEmpty) {
  if (keepEmpty) return 1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), delimiter));
  std::size_t begins = text.empty() || text[0] == delimiter ? 0 : 1;
  for (std::size_t at = 1; at < text.size(); ++at) {
    // Without a jump the compiler compares many characters at once.
    begins +=
        static_cast<std::size_t>(text[at] != delimiter) & static_cast<std::size_t>(text[at - 1] == delimiter);
  }
  return begins;
}

bool isOneOf(const std::vector<std::string>& parts, const std::string& text) {
  const std::less<> before;
  return !before(&text, parts.data()) && before(&text, parts.data() + parts.size());
}

/// Writes a piece over an earlier part where there is one, whose memory serves again.
std::string& put(std::vector<std::string>& parts, std::size_t at, std::string_view piece) {
  return at < parts.size() ? parts[at].assign(piece) : parts.emplace_back(piece);
}

template <typename Unwanted>
void stripWhere(std::string& text, Unwanted unwanted) {
  const auto first = std::find_if_not(text.begin(), text.end(), unwanted);
  text.erase(text.begin(), first);
  const auto last = std::find_if_not(text.rbegin(), text.rend(), unwanted);
  text.erase(last.base(), text.end());
}

}  // namespace

std::size_t replace_chars(std::string& text, const std::string& chars, const std::string& replacement) {
  if (text.empty() || chars.empty()) return 0;
  if (replacement.empty()) return deleteChars(text, chars);
  const CharSet unwanted(chars);
  std::string result;
  std::size_t count = 0;
  for (char c : text) {
    if (unwanted.contains(c)) {
      result += replacement;
      ++count;
    } else {
      result += c;
    }
  }
  if (count != 0) text.swap(result);
  return count;
}

std::size_t replace(std::string& text, const std::string& pattern, const std::string& replacement) {
  if (pattern.empty()) return 0;
  std::string result;
  std::size_t count = 0, from = 0;
  for (std::size_t at; (at = text.find(pattern, from)) != text.npos; from = at + pattern.size()) {
    if (count++ == 0) result.reserve(text.size());
    result.append(text, from, at - from).append(replacement);
  }
  if (count != 0) text.swap(result.append(text, from, text.npos));
  return count;
}

void split(const std::string& text, char delimiter, std::vector<std::string>& parts, bool strip,
           bool keepEmpty) {
  if (isOneOf(parts, text)) return split(std::string(text), delimiter, parts, strip, keepEmpty);
  if (parts.empty()) parts.reserve(countPieces(text, delimiter, keepEmpty));
  std::size_t count = 0;
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t to = std::min(text.find(delimiter, from), text.size());
    if (keepEmpty || to != from) {
      std::string& part = put(parts, count, {text.data() + from, to - from});
      if (strip) makeStripped(part, 0);
      if (keepEmpty || !part.empty()) ++count;
    }
    from = to + 1;
  }
  parts.resize(count);
}

void makeStripped(std::string& text, char c) {
  if (c != 0) {
    stripWhere(text, [c](char each) { return each == c; });
  } else {
    stripWhere(text, [](char each) { return std::isspace(static_cast<unsigned char>(each)) != 0; });
  }
}

}  // namespace kes::helper
