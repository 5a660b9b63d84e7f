#include "NameFormat.h"

#include <cstdio>
#include <random>
#include <regex>

namespace kes::pcap {
namespace {

constexpr std::size_t limit = 1024;

std::string expand(const std::string& format) { return expandName(format.c_str(), "eth", "FILE", limit); }

TEST(NameFormatTest, APlainNameStaysAsItStands) {
  EXPECT_EQ(expand("capture.pcap"), "capture.pcap");
  EXPECT_EQ(expand(""), "");
  EXPECT_EQ(expand("/tmp/a b/\xC3\xA4.pcap"), "/tmp/a b/\xC3\xA4.pcap");
}

TEST(NameFormatTest, TheFirstConversionIsTheTypeAndTheSecondTheName) {
  EXPECT_EQ(expand("x_%s"), "x_eth");
  EXPECT_EQ(expand("%s-%s"), "eth-FILE");
}

TEST(NameFormatTest, AThirdConversionStays) { EXPECT_EQ(expand("%s%s%s%5s"), "ethFILE%s%5s"); }

TEST(NameFormatTest, NumberedConversionsTakeTheirArgumentEachTime) {
  EXPECT_EQ(expand("%1$s%1$s%1$s"), "ethetheth");
  EXPECT_EQ(expand("%2$s"), "FILE");
  EXPECT_EQ(expand("%2$s %1$5s %2$-6s|"), "FILE   eth FILE  |");
  EXPECT_EQ(expand("%01$s"), "eth");
}

TEST(NameFormatTest, NumberedAndPlainConversionsCountApart) {
  EXPECT_EQ(expand("%s%2$s%s%s"), "ethFILEFILE%s");
  EXPECT_EQ(expand("%1$s%s"), "etheth");
}

TEST(NameFormatTest, OtherArgumentNumbersStay) {
  EXPECT_EQ(expand("%0$s%3$s%99999999999999999999$s%$s"), "%0$s%3$s%99999999999999999999$s%$s");
}

TEST(NameFormatTest, WidthPrecisionAndFlagsAreAsPrintfHasThem) {
  EXPECT_EQ(expand("%5s"), "  eth");
  EXPECT_EQ(expand("%-5s|"), "eth  |");
  EXPECT_EQ(expand("%.2s"), "et");
  EXPECT_EQ(expand("%.s"), "");
  EXPECT_EQ(expand("%.0s"), "");
  EXPECT_EQ(expand("%5.1s"), "    e");
  EXPECT_EQ(expand("%+ #0'5s"), "  eth");
  EXPECT_EQ(expand("%--5s|"), "eth  |");
  EXPECT_EQ(expand("%.99999999999999999999s"), "eth");
}

TEST(NameFormatTest, ADoubledPercentSignIsOne) {
  EXPECT_EQ(expand("100%%"), "100%");
  EXPECT_EQ(expand("%%s"), "%s");
  EXPECT_EQ(expand("%%%s"), "%eth");
}

TEST(NameFormatTest, EverythingElseBehindAPercentSignStays) {
  for (const char* name : {"%",  "%d", "%n", "%c",  "%x", "%p",  "%*s",  "%1$*2$s", "%.*s", "%ls",   "%hs",
                           "%S", "%m", "%5", "%5.", "%-", "%1$", "%5.3", "a%",      "%5d",  "%.-3s", "%\n"}) {
    EXPECT_EQ(expand(name), name);
  }
  EXPECT_EQ(expand("%d%s%n%s"), "%deth%nFILE");
  EXPECT_EQ(expand("100% %s"), "100% eth");
}

TEST(NameFormatTest, TheNameItselfIsNotExpandedAgain) {
  EXPECT_EQ(expandName("%s_%s", "eth", "%s_%s", limit), "eth_%s_%s");
}

TEST(NameFormatTest, AResultPastTheLimitIsAtLeastThatLong) {
  EXPECT_GE(expand("%99999999999999999999s").size(), limit);
  EXPECT_GE(expand("%-1024s").size(), limit);
  EXPECT_EQ(expand("%1023s").size(), 1023U);
  EXPECT_GE(expand(std::string(5000, 'x')).size(), limit);
}

TEST(NameFormatTest, AGreatWidthCostsLittleMemory) {
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "%1$999999999s";
  EXPECT_LT(expand(many).size(), 4 * limit);
}

/// Builds formats whose result printf defines.
class ValidFormat {
 public:
  explicit ValidFormat(unsigned seed) : random_(seed) {}

  std::string next() {
    std::string format;
    const bool numbered = pick(2) == 0;
    unsigned plain = 0;
    // printf wants every argument up to the highest to be used.
    if (numbered) format = "%1$s%2$s";
    for (unsigned pieces = pick(8); pieces > 0; --pieces) {
      switch (pick(3)) {
        case 0:
          format += std::string(1 + pick(5), static_cast<char>('a' + pick(26)));
          break;
        case 1:
          format += "%%";
          break;
        default:
          if (numbered) {
            format += conversion(std::to_string(1 + pick(2)) + '$');
          } else if (plain++ < 2) {
            format += conversion("");
          }
      }
    }
    return format;
  }

 private:
  unsigned pick(unsigned count) { return std::uniform_int_distribution<unsigned>(0, count - 1)(random_); }

  std::string conversion(const std::string& argument) {
    std::string text = '%' + argument;
    if (pick(3) == 0) text += '-';
    if (pick(2) == 0) text += std::to_string(1 + pick(30));
    if (pick(2) == 0) text += '.';
    if (text.back() == '.' && pick(4) != 0) text += std::to_string(pick(12));
    return text + 's';
  }

  std::mt19937 random_;
};

TEST(NameFormatTest, RandomValidFormatsGiveWhatPrintfGives) {
  ValidFormat formats(20240611);
  for (int i = 0; i < 20'000; ++i) {
    const std::string format = formats.next();
    char expected[2048];
    std::snprintf(expected, sizeof expected, format.c_str(), "eth", format.c_str());
    ASSERT_EQ(expandName(format.c_str(), "eth", format.c_str(), sizeof expected), expected) << format;
  }
}

/// The same rules, written as a regular expression.
std::string model(const std::string& format, const std::string& first, const std::string& second) {
  static const std::regex conversion("^%(?:(%)|(?:0*([12])\\$)?([-+ #0']*)([0-9]*)(?:(\\.)([0-9]*))?s)");
  std::string result, rest = format;
  int plain = 0;
  std::smatch match;
  while (!rest.empty()) {
    const bool found = std::regex_search(rest, match, conversion);
    if (found && match[1].matched) {
      result += '%';
    } else if (found && (match[2].matched || plain < 2)) {
      const int index = match[2].matched ? match[2].str()[0] - '0' : ++plain;
      const std::string& argument = index == 1 ? first : second;
      const int width = match[4].length() > 0 ? std::stoi(match[4]) : 0;
      int precision = -1;
      if (match[5].matched) precision = match[6].length() > 0 ? std::stoi(match[6]) : 0;
      char text[2048];
      const bool left = match[3].str().find('-') != std::string::npos;
      std::snprintf(text, sizeof text, "%*.*s", left ? -width : width, precision, argument.c_str());
      result += text;
    } else {
      result += rest[0];
      rest.erase(0, 1);
      continue;
    }
    rest = match.suffix();
  }
  return result;
}

TEST(NameFormatTest, RandomTextGivesWhatTheModelGives) {
  std::mt19937 random(4711);
  const std::string alphabet = "%%%%ss12$-.0 5#+x*dn";
  std::uniform_int_distribution<std::size_t> letter(0, alphabet.size() - 1), length(0, 40);
  const std::regex tooWide("[0-9]{4}");
  for (int i = 0; i < 5'000; ++i) {
    std::string format;
    for (std::size_t left = length(random); left > 0; --left) format += alphabet[letter(random)];
    if (std::regex_search(format, tooWide)) continue;  // past what the model's buffer holds
    ASSERT_EQ(expandName(format.c_str(), "eth", format.c_str(), 100'000), model(format, "eth", format))
        << format;
  }
}

}  // namespace
}  // namespace kes::pcap
