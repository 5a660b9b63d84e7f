#include <cerrno>
#include <cstdlib>
#include <memory>
#include <random>

#include "kesos/processes.h"

namespace {

using testing::ElementsAre;

/// What a command line is taken apart to; empty for none.
std::vector<std::string> parsed(const std::string& line) {
  char** slots = parseProcessCommandline(line.c_str());
  std::vector<std::string> words;
  if (slots == nullptr) return words;
  for (char** slot = slots; *slot != nullptr; ++slot) {
    words.emplace_back(*slot);
    std::free(*slot);
  }
  std::free(slots);
  return words;
}

TEST(CommandLineTest, TheFirstWordIsTheProgramAndTheFirstArgument) {
  EXPECT_THAT(parsed("prog"), ElementsAre("prog", "prog"));
  EXPECT_THAT(parsed("prog a b"), ElementsAre("prog", "prog", "a", "b"));
  EXPECT_THAT(parsed("  prog a"), ElementsAre("", "", "prog", "a")) << "the program ends at the first space";
  EXPECT_THAT(parsed(""), ElementsAre("", ""));
  EXPECT_THAT(parsed("\"my prog\" a"), ElementsAre("\"my", "\"my", "prog a"))
      << "a quote means nothing in a program";
}

TEST(CommandLineTest, OnlySpacesSeparate) {
  EXPECT_THAT(parsed("prog   a  b "), ElementsAre("prog", "prog", "a", "b"));
  EXPECT_THAT(parsed("prog a\tb\nc"), ElementsAre("prog", "prog", "a\tb\nc"));
}

TEST(CommandLineTest, QuotesKeepSpacesTogether) {
  EXPECT_THAT(parsed("prog a \"b c\" d"), ElementsAre("prog", "prog", "a", "b c", "d"));
  EXPECT_THAT(parsed("prog x\"y z\"w"), ElementsAre("prog", "prog", "xy zw"));
  EXPECT_THAT(parsed("prog \"\" \"\""), ElementsAre("prog", "prog", "", ""));
  EXPECT_THAT(parsed("prog \"a\"\"b\""), ElementsAre("prog", "prog", "ab"));
}

TEST(CommandLineTest, AnUnterminatedQuoteTakesTheRestOfTheLine) {
  EXPECT_THAT(parsed("prog \"a b  c"), ElementsAre("prog", "prog", "a b  c"));
  EXPECT_THAT(parsed("prog x\"a \\\"b"), ElementsAre("prog", "prog", "xa \"b"));
  EXPECT_THAT(parsed("prog \"a\\"), ElementsAre("prog", "prog", "a\\"));
  EXPECT_THAT(parsed("prog \""), ElementsAre("prog", "prog", ""));
}

TEST(CommandLineTest, OnlyQuotesAreEscapedAndOnlyInsideQuotes) {
  EXPECT_THAT(parsed(R"(prog "a\"b" c)"), ElementsAre("prog", "prog", "a\"b", "c"));
  EXPECT_THAT(parsed(R"(prog "a\nb\\" c)"), ElementsAre("prog", "prog", R"(a\nb\\)", "c"));
  EXPECT_THAT(parsed(R"(prog a\ b\c)"), ElementsAre("prog", "prog", R"(a\)", R"(b\c)"));
  EXPECT_THAT(parsed(R"(prog a\"b c")"), ElementsAre("prog", "prog", R"(a\b c)"));
}

TEST(CommandLineTest, At4096SlotsTheLineIsFull) {
  std::string line = "prog";
  for (int argument = 0; argument < 4094; ++argument) line += " a";
  EXPECT_EQ(parsed(line).size(), 4096U);
  EXPECT_EQ(parsed(line + " ").size(), 4096U);
  errno = 0;
  EXPECT_EQ(parseProcessCommandline((line + " a").c_str()), nullptr);
  EXPECT_EQ(errno, E2BIG);
  EXPECT_EQ(parseProcessCommandline(nullptr), nullptr);
}

/// The same, read as the table of states says it, one string built character by character.
std::vector<std::string> model(const std::string& line) {
  const std::size_t end = line.find(' ');
  std::vector<std::string> words(2, line.substr(0, end));
  bool inArgument = false, quoted = false;
  for (std::size_t at = std::min(end, line.size()); at < line.size(); ++at) {
    const char c = line[at];
    const bool more = at + 1 < line.size();
    if (quoted) {
      if (c == '"') {
        quoted = false;
        inArgument = !more || line[at + 1] != ' ';
      } else if (c == '\\' && more) {
        if (line[++at] != '"') words.back() += c;
        words.back() += line[at];
      } else {
        words.back() += c;
      }
    } else if (c == ' ') {
      inArgument = false;
    } else {
      if (!inArgument) words.emplace_back();
      inArgument = true;
      quoted = c == '"';
      if (!quoted) words.back() += c;
    }
  }
  return words;
}

TEST(CommandLineTest, RandomLinesAgreeWithAPlainModel) {
  std::mt19937 random(4096);
  for (int round = 0; round < 50000; ++round) {
    std::string line;
    for (auto length = random() % 16; length > 0; --length) line += "ab \"\\\t"[random() % 6];
    ASSERT_EQ(parsed(line), model(line)) << line;
  }
}

}  // namespace
