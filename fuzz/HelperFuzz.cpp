// split(), replace() and replace_chars() of any text against their definitions. The first bytes of the input
// are the options, the pattern and the replacement.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "kespal/Helper.h"

namespace {

using Parts = std::vector<std::string>;

Parts plainSplit(const std::string& text, char delimiter, bool strip, bool keepEmpty) {
  Parts parts(1);
  for (char c : text) {
    if (c == delimiter) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  if (strip) {
    for (std::string& part : parts) kes::helper::makeStripped(part, 0);
  }
  if (!keepEmpty) std::erase(parts, "");
  return parts;
}

std::size_t plainReplace(std::string& text, const std::string& pattern, const std::string& replacement) {
  std::size_t count = 0;
  if (pattern.empty()) return count;
  for (std::size_t at = 0; (at = text.find(pattern, at)) != text.npos; at += replacement.size(), ++count) {
    text.replace(at, pattern.size(), replacement);
  }
  return count;
}

std::size_t plainReplaceChars(std::string& text, const std::string& chars, const std::string& replacement) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find_first_of(chars, at)) != text.npos;
       at += replacement.size(), ++count) {
    text.replace(at, 1, replacement);
  }
  return count;
}

void check(bool right) {
  if (!right) std::abort();
}

/// Takes the first characters of a text away and gives them.
std::string take(std::string& text, std::size_t count) {
  std::string front = text.substr(0, count);
  text.erase(0, count);
  return front;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  if (text.size() < 2) return 0;
  const std::string options = take(text, 2);
  const std::string pattern = take(text, options[0] & 3), replacement = take(text, options[0] >> 2 & 3);
  const bool strip = (options[0] & 16) != 0, keepEmpty = (options[0] & 32) != 0;

  static Parts parts;  // used again on purpose
  kes::helper::split(text, options[1], parts, strip, keepEmpty);
  check(parts == plainSplit(text, options[1], strip, keepEmpty));

  std::string replaced = text, model = text;
  check(kes::helper::replace(replaced, pattern, replacement) == plainReplace(model, pattern, replacement));
  check(replaced == model);

  replaced = model = text;
  check(kes::helper::replace_chars(replaced, pattern, replacement) ==
        plainReplaceChars(model, pattern, replacement));
  check(replaced == model);
  return 0;
}
