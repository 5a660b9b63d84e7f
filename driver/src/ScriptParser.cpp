#include <algorithm>
#include <charconv>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "Hex.h"
#include "ResultNames.h"
#include "Script.h"

namespace kes::driver {
namespace {

using ByteVector = std::vector<std::uint8_t>;

using BadLine = std::runtime_error;

/// A number with an optional sign, in decimal or, after 0x, in hexadecimal.
std::int64_t parseNumber(std::string_view text, std::int64_t lowest, std::int64_t highest) {
  std::string_view digits = text;
  const bool negative = digits.starts_with('-');
  if (negative || digits.starts_with('+')) digits.remove_prefix(1);
  const bool hexadecimal = digits.starts_with("0x");
  if (hexadecimal) digits.remove_prefix(2);
  std::int64_t value = -1;
  const auto* end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, value, hexadecimal ? 16 : 10);
  const bool isNumber = error == std::errc() && stop == end && !digits.empty() && value >= 0;
  const std::int64_t number = negative ? -value : value;
  if (!isNumber || number < lowest || number > highest)
    throw BadLine("not a usable number: " + std::string(text));
  return number;
}

template <typename Number>
Number parseUnsigned(std::string_view text) {
  return static_cast<Number>(parseNumber(text, 0, std::numeric_limits<Number>::max()));
}

std::uint32_t parseResult(std::string_view text) {
  if (const auto code = resultNamed(text)) return *code;
  return parseUnsigned<std::uint32_t>(text);
}

/// The words of a line; a word in double quotes may hold blanks and the escapes \n \t \" \\ \xHH.
class Words {
 public:
  explicit Words(std::string_view line) : rest_(line) {}

  /// The next word, or nothing at the end of the line or at a comment.
  std::optional<std::string> next() {
    const std::size_t start = rest_.find_first_not_of(" \t\r");
    rest_.remove_prefix(start == std::string_view::npos ? rest_.size() : start);
    if (rest_.empty() || rest_.front() == '#') return std::nullopt;
    return rest_.front() == '"' ? quoted() : plain();
  }

  std::string value(const std::string& word) {
    auto found = next();
    if (!found) throw BadLine(word + " needs a value");
    return *found;
  }

 private:
  std::string plain() {
    std::string word(rest_.substr(0, rest_.find_first_of(" \t\r")));
    rest_.remove_prefix(word.size());
    return word;
  }

  std::string quoted() {
    std::string text;
    rest_.remove_prefix(1);
    for (char c = take(); c != '"'; c = take()) text += c == '\\' ? escaped() : c;
    return text;
  }

  char escaped() {
    switch (const char c = take()) {
      case 'n':
        return '\n';
      case 't':
        return '\t';
      case '"':
      case '\\':
        return c;
      case 'x': {
        const char digits[] = {take(), take()};
        return static_cast<char>(fromHex({digits, sizeof digits}).front());
      }
      default:
        throw BadLine(std::string("unknown escape \\") + c);
    }
  }

  char take() {
    if (rest_.empty()) throw BadLine("a quoted text has no end");
    const char c = rest_.front();
    rest_.remove_prefix(1);
    return c;
  }

  std::string_view rest_;
};

// A datagram above this cannot be sent in one piece anywhere.
constexpr std::int64_t maxCount = 1 << 20;

ByteVector countingBytes(std::size_t count) {
  ByteVector bytes(count);
  for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<std::uint8_t>(i);
  return bytes;
}

struct WithValue {
  std::string_view name;
  void (*set)(Play&, const std::string& value);
};

constexpr WithValue withValue[] = {
    {"expect", [](Play& p, const std::string& v) { p.expected = fromHex(v); }},
    {"delay",
     [](Play& p, const std::string& v) {
       p.delay = std::chrono::milliseconds(parseUnsigned<std::uint32_t>(v));
     }},
    {"return", [](Play& p, const std::string& v) { p.result = parseResult(v); }},
    {"text", [](Play& p, const std::string& v) { p.structure = makeTraceReply(v); }},
    {"bytes", [](Play& p, const std::string& v) { p.structure = fromHex(v); }},
    {"count",
     [](Play& p, const std::string& v) {
       p.structure = countingBytes(static_cast<std::size_t>(parseNumber(v, 0, maxCount)));
     }},
    {"scalars", [](Play& p, const std::string& v) { p.scalars = parseUnsigned<std::uint8_t>(v); }},
    {"magic", [](Play& p, const std::string& v) { p.magic = parseUnsigned<std::uint32_t>(v); }},
    {"version", [](Play& p, const std::string& v) { p.version = parseUnsigned<std::uint16_t>(v); }},
    {"kind", [](Play& p, const std::string& v) { p.kind = parseUnsigned<std::uint16_t>(v); }},
    {"sequence",
     [](Play& p, const std::string& v) { p.sequenceShift = parseNumber(v, -maxCount, maxCount); }},
    {"length", [](Play& p, const std::string& v) { p.lengthShift = parseNumber(v, -maxCount, maxCount); }},
    {"raw", [](Play& p, const std::string& v) { p.raw = fromHex(v); }},
};

struct NamedFate {
  std::string_view name;
  Play::Fate fate;
};

constexpr NamedFate fates[] = {
    {"pass", Play::Fate::Reply},
    {"twice", Play::Fate::Twice},
    {"silent", Play::Fate::Silent},
    {"hangup", Play::Fate::HangUp},
    {"die", Play::Fate::Die},
    {"then-hangup", Play::Fate::ReplyThenHangUp},
    {"then-die", Play::Fate::ReplyThenDie},
};

CallName parseCall(const std::string& word) {
  const auto* const name = std::ranges::find(callNames, word);
  if (name == std::end(callNames)) throw BadLine("no call is named " + word);
  return static_cast<CallName>(name - callNames);
}

bool parseTimes(const std::string& word, Play& play) {
  if (word == "forever") {
    play.times = Script::forever;
  } else if (word.size() > 1 && word[0] == 'x' &&
             word.find_first_not_of("0123456789", 1) == std::string::npos) {
    play.times = static_cast<std::uint64_t>(parseNumber(word.substr(1), 1, maxCount));
  } else {
    return false;
  }
  return true;
}

void parseWord(const std::string& word, Words& words, Play& play) {
  if (const auto* named = std::ranges::find(fates, word, &NamedFate::name); named != std::end(fates)) {
    play.fate = named->fate;
  } else if (const auto* option = std::ranges::find(withValue, word, &WithValue::name);
             option != std::end(withValue)) {
    option->set(play, words.value(word));
  } else if (!parseTimes(word, play)) {
    throw BadLine("unknown word " + word);
  }
}

// There is no request yet that could be answered.
void checkConnect(const Play& play) {
  const bool isPossible =
      play.fate == Play::Fate::Reply || play.fate == Play::Fate::HangUp || play.fate == Play::Fate::Die;
  const bool hasMore = !play.leavesAnswer() || play.expected || play.delay.count() != 0 ||
                       play.scalars != 0 || play.magic || play.version || play.kind ||
                       play.sequenceShift != 0 || play.lengthShift != 0;
  if (!isPossible || hasMore) throw BadLine("connect knows pass, hangup and die only");
}

void parseLine(std::string_view line, std::size_t number, std::map<CallName, std::vector<Play>>& plays) {
  Words words(line);
  const auto call = words.next();
  if (!call) return;
  Play play;
  play.line = number;
  auto& playsOfCall = plays[parseCall(*call)];
  while (const auto word = words.next()) parseWord(*word, words, play);
  if (*call == nameOf(CallName::Connect)) checkConnect(play);
  playsOfCall.push_back(std::move(play));
}

}  // namespace

Script parseScript(const std::string& text) {
  std::map<CallName, std::vector<Play>> plays;
  std::istringstream lines(text);
  std::string line;
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    try {
      parseLine(line, number, plays);
    } catch (const BadLine& error) {
      throw std::runtime_error("script line " + std::to_string(number) + ": " + error.what());
    }
  }
  return Script(std::move(plays));
}

}  // namespace kes::driver
