#include "command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "kesos/processes.h"

namespace {

constexpr std::size_t mostSlots = 4096;

/// Takes what precedes the first of these characters, or all of it.
std::string_view takeUpTo(std::string_view& rest, const char* ends) {
  const std::string_view taken = rest.substr(0, rest.find_first_of(ends));
  rest.remove_prefix(taken.size());
  return taken;
}

/// Takes a quoted text, also one that is never closed. A backslash before a quote goes, any other stays, with
/// what it stands before.
std::string takeQuoted(std::string_view& rest) {
  std::string text;
  std::size_t at = 1;
  for (; at < rest.size() && rest[at] != '"'; ++at) {
    const bool isPair = rest[at] == '\\' && at + 1 < rest.size();
    if (isPair && rest[++at] != '"') text += '\\';
    text += rest[at];
  }
  rest.remove_prefix(std::min(at + 1, rest.size()));
  return text;
}

/// Takes an argument: texts with and without quotes, up to a space that is in none.
std::string takeArgument(std::string_view& rest) {
  std::string argument;
  while (!rest.empty() && rest[0] != ' ') {
    argument += rest[0] == '"' ? takeQuoted(rest) : std::string(takeUpTo(rest, " \""));
  }
  return argument;
}

std::vector<std::string> wordsOf(std::string_view line) {
  std::vector<std::string> words{std::string(takeUpTo(line, " "))};
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    if (line.empty()) return words;
    words.push_back(takeArgument(line));
  }
}

bool copyInto(char*& slot, const std::string& text) {
  slot = ::strdup(text.c_str());
  return slot != nullptr;
}

/// The words as C has them; null without memory.
char** slotsFor(const std::vector<std::string>& words) {
  kes::kesos::CommandLine slots(static_cast<char**>(std::calloc(mostSlots + 1, sizeof(char*))));
  if (!slots) return nullptr;
  char** slot = slots.get();
  if (!copyInto(*slot, words[0])) return nullptr;
  for (const std::string& word : words) {
    if (!copyInto(*++slot, word)) return nullptr;
  }
  return slots.release();
}

}  // namespace

char** parseProcessCommandline(const char* cmd) {
  if (cmd == nullptr) {
    errno = EFAULT;
    return nullptr;
  }
  try {
    const std::vector<std::string> words = wordsOf(cmd);
    if (words.size() + 1 <= mostSlots) return slotsFor(words);
    errno = E2BIG;
  } catch (const std::exception&) {
    errno = ENOMEM;
  }
  return nullptr;
}
