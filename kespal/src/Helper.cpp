#include "kespal/Helper.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace kes::helper {

namespace {

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
  std::string result;
  std::size_t count = 0;
  for (char c : text) {
    if (chars.find(c) == chars.npos) {
      result += c;
    } else {
      result += replacement;
      ++count;
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
    result.append(text, from, at - from).append(replacement);
    ++count;
  }
  if (count != 0) text.swap(result.append(text, from, text.npos));
  return count;
}

void split(const std::string& text, char delimiter, std::vector<std::string>& parts, bool strip,
           bool keepEmpty) {
  parts.clear();
  for (std::size_t from = 0; from <= text.size();) {
    const std::size_t to = std::min(text.find(delimiter, from), text.size());
    if (keepEmpty || to != from) {
      parts.emplace_back(text, from, to - from);
      if (strip) makeStripped(parts.back(), 0);
      if (!keepEmpty && parts.back().empty()) parts.pop_back();
    }
    from = to + 1;
  }
}

void makeStripped(std::string& text, char c) {
  if (c != 0) {
    stripWhere(text, [c](char each) { return each == c; });
  } else {
    stripWhere(text, [](char each) { return std::isspace(static_cast<unsigned char>(each)) != 0; });
  }
}

}  // namespace kes::helper
