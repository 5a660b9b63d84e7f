// Command lines of any bytes, taken apart and held against a plain reading of the same rules.
#include <algorithm>
#include <string>
#include <vector>

#include "Target.h"
#include "kesos/processes.h"

namespace {

std::vector<std::string> expected(const std::string& line) {
  const std::size_t end = std::min(line.find(' '), line.size());
  std::vector<std::string> words(2, line.substr(0, end));
  bool inArgument = false, quoted = false;
  for (std::size_t at = end; at < line.size(); ++at) {
    const char c = line[at];
    const bool more = at + 1 < line.size();
    if (!quoted && c == ' ') {
      inArgument = false;
    } else if (!quoted) {
      if (!inArgument) words.emplace_back();
      inArgument = true;
      quoted = c == '"';
      if (!quoted) words.back() += c;
    } else if (c == '"') {
      quoted = false;
      inArgument = !more || line[at + 1] != ' ';
    } else {
      if (c != '\\' || !more || line[at + 1] != '"') words.back() += c;
      if (c == '\\' && more) words.back() += line[++at];
    }
  }
  return words;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string line = std::string(reinterpret_cast<const char*>(data), size).c_str();
  const std::vector<std::string> words = expected(line);
  char** slots = parseProcessCommandline(line.c_str());
  if ((slots == nullptr) != (words.size() > 4096)) std::abort();
  if (slots == nullptr) return 0;
  for (std::size_t index = 0; index < words.size(); ++index) {
    if (slots[index] == nullptr || words[index] != slots[index]) std::abort();
    std::free(slots[index]);
  }
  if (slots[words.size()] != nullptr) std::abort();
  std::free(slots);
  return 0;
}
