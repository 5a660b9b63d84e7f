#include "command_line.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "kesos/processes.h"

namespace {

constexpr std::size_t mostSlots = 4096;

/// The quoted text: a backslash before a quote goes, any other stays, with what it stands before.
std::string unescaped(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const bool isPair = text[0] == '\\' && text.size() > 1;
    if (isPair) result += text[1] == '"' ? "" : "\\";
    result += text[isPair ? 1 : 0];
    text.remove_prefix(isPair ? 2 : 1);
  }
  return result;
}

/// Takes a command line apart, one character at a time.
class Parser {
 public:
  explicit Parser(std::string_view line) : line_(line) {}

  std::vector<std::string> words() {
    for (at_ = 0; at_ < line_.size(); ++at_) step(line_[at_]);
    finish();
    return std::move(words_);
  }

 private:
  enum class State { program, between, unquoted, quoted, escaped };

  void step(char c) {
    switch (state_) {
      case State::program:
        inProgram(c);
        break;
      case State::between:
        betweenArguments(c);
        break;
      case State::unquoted:
        inUnquoted(c);
        break;
      case State::quoted:
        inQuoted(c);
        break;
      case State::escaped:
        state_ = State::quoted;
        break;
    }
  }

  void inProgram(char c) {
    if (c != ' ') return;
    words_.emplace_back(text());
    state_ = State::between;
  }

  void betweenArguments(char c) {
    if (c == ' ') return;
    words_.emplace_back();
    start(c == '"' ? State::quoted : State::unquoted, c == '"' ? at_ + 1 : at_);
  }

  void inUnquoted(char c) {
    if (c != ' ' && c != '"') return;
    words_.back() += text();
    if (c == ' ') {
      state_ = State::between;
    } else {
      start(State::quoted, at_ + 1);
    }
  }

  void inQuoted(char c) {
    if (c == '\\') state_ = State::escaped;
    if (c != '"') return;
    words_.back() += unescaped(text());
    const bool ends = at_ + 1 < line_.size() && line_[at_ + 1] == ' ';
    start(ends ? State::between : State::unquoted, at_ + 1);
  }

  /// What the end of the line ends: a program, an argument, or a quote that was never closed.
  void finish() {
    if (state_ == State::program) words_.emplace_back(line_);
    if (state_ == State::unquoted) words_.back() += text();
    if (state_ == State::quoted || state_ == State::escaped) words_.back() += unescaped(text());
  }

  void start(State state, std::size_t at) {
    state_ = state;
    start_ = at;
  }
  std::string_view text() const { return line_.substr(start_, at_ - start_); }

  std::string_view line_;
  State state_ = State::program;
  std::size_t start_ = 0;  ///< of the text that was not taken yet
  std::size_t at_ = 0;
  std::vector<std::string> words_;
};

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
    const std::vector<std::string> words = Parser(cmd).words();
    if (words.size() + 1 <= mostSlots) return slotsFor(words);
    errno = E2BIG;
  } catch (const std::exception&) {
    errno = ENOMEM;
  }
  return nullptr;
}
