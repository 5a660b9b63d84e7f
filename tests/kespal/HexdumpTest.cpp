#include "kespal/Hexdump.h"

#include <iomanip>
#include <locale>
#include <random>
#include <sstream>
#include <stdexcept>

#include "kespal/Helper.h"

namespace kes {
namespace {

const unsigned char five[] = {0x01, 0xab, 0x00, 0xff, 0x10};

/// The same as the stream operator, byte by byte.
std::string dumpedPlainly(const Hexdump& dump, bool upper) {
  std::string text;
  for (std::size_t index = 0; index < dump.size; ++index) {
    const bool atLineEnd = dump.perLine > 0 && index % static_cast<std::size_t>(dump.perLine) == 0;
    if (index != 0) text += atLineEnd ? "\n" : dump.separator;
    text += hex(dump.data + index, 1, 0, upper);
  }
  return text;
}

std::string dumped(const Hexdump& dump) {
  std::ostringstream stream;
  stream << dump;
  return stream.str();
}

TEST(HexdumpTest, FiveBytesInLinesOfTwoAreThreeLinesWithoutAFinalNewline) {
  EXPECT_EQ(dumped({five, 5, 2, " "}), "01 ab\n00 ff\n10");
}

TEST(HexdumpTest, NoDataIsShownAsNullptr) {
  EXPECT_EQ(dumped({nullptr, 5, 2, " "}), "nullptr");
  EXPECT_EQ(dumped({nullptr, 0, 0, ""}), "nullptr");
}

TEST(HexdumpTest, NoBytesAreNothing) { EXPECT_EQ(dumped({five, 0, 2, " "}), ""); }

TEST(HexdumpTest, WithoutALineLengthEverythingStandsOnOneLine) {
  EXPECT_EQ(dumped({five, 5, 0, ", "}), "01, ab, 00, ff, 10");
  EXPECT_EQ(dumped({five, 5, -1, ""}), "01ab00ff10");
}

TEST(HexdumpTest, AFullLastLineHasNoNewlineEither) { EXPECT_EQ(dumped({five, 4, 2, "-"}), "01-ab\n00-ff"); }

TEST(HexdumpTest, TheStreamKeepsItsFillAndFlags) {
  std::ostringstream stream;
  stream << std::setfill('*') << std::oct << std::showpos;
  const auto flags = stream.flags();
  stream << Hexdump{five, 5, 0, " "};
  EXPECT_EQ(stream.fill(), '*');
  EXPECT_EQ(stream.flags(), flags);
}

/// Takes a few characters, then throws.
class FailingBuffer : public std::streambuf {
 public:
  explicit FailingBuffer(int room) : room_(room) {}

 private:
  int_type overflow(int_type c) override {
    if (room_-- <= 0) throw std::runtime_error("full");
    return c;
  }
  int room_;
};

TEST(HexdumpTest, TheStreamKeepsItsFillAndFlagsWhenItThrows) {
  const std::string many(5000, 'x');
  for (std::size_t size : {std::size_t{5}, many.size()}) {
    FailingBuffer buffer(3);
    std::ostream stream(&buffer);
    stream.exceptions(std::ios::badbit);
    stream << std::setfill('*') << std::oct;
    const auto flags = stream.flags();
    const auto* data = reinterpret_cast<const unsigned char*>(many.data());
    EXPECT_THROW((stream << Hexdump{data, size, 4, " "}), std::runtime_error);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_EQ(stream.flags(), flags);
  }
}

TEST(HexdumpTest, LinesAndSeparatorsOfEverySizeComeOutWhole) {
  std::mt19937 random(1);
  std::string bytes(2000, 0);
  for (char& byte : bytes) byte = static_cast<char>(random());
  const std::string separators[] = {"", " ", ", ", "0123456789abcdef", std::string(5000, '-')};
  for (std::size_t size : {0U, 1U, 17U, 255U, 256U, 257U, 2000U}) {
    for (int perLine : {0, 1, 7, 16, 256, 257, 5000}) {
      for (const std::string& separator : separators) {
        const Hexdump dump{reinterpret_cast<const unsigned char*>(bytes.data()), size, perLine, separator};
        ASSERT_EQ(dumped(dump), dumpedPlainly(dump, false)) << size << ' ' << perLine << separator;
      }
    }
  }
}

TEST(HexdumpTest, EveryByteIsTwoDigitsWhateverFlagsTheStreamHas) {
  const std::string bytes(600, '\x0a');
  using Flags = std::ios::fmtflags;
  const Flags alignments[] = {Flags{}, std::ios::left, std::ios::right, std::ios::internal};
  const Flags others[] = {Flags{},       std::ios::showbase, std::ios::showpos,
                          std::ios::oct, std::ios::dec,      std::ios::unitbuf};
  for (std::size_t size : {5U, 600U}) {
    const Hexdump dump{reinterpret_cast<const unsigned char*>(bytes.data()), size, 16, " "};
    for (Flags alignment : alignments) {
      for (Flags other : others) {
        for (Flags letters : {Flags{}, Flags{std::ios::uppercase}}) {
          std::ostringstream stream;
          stream.flags(alignment | other | letters);
          stream << std::setfill('*') << dump;
          EXPECT_EQ(stream.str(), dumpedPlainly(dump, letters != Flags{})) << stream.flags();
          EXPECT_EQ(stream.flags(), alignment | other | letters);
          EXPECT_EQ(stream.fill(), '*');
        }
      }
    }
  }
}

TEST(HexdumpTest, AWidthIsUsedUpAndWidensNoByte) {
  std::ostringstream stream;
  stream << std::setw(9) << Hexdump{five, 2, 0, " "} << '|';
  EXPECT_EQ(stream.str(), "01 ab|");
  EXPECT_EQ(stream.width(), 0);
}

TEST(HexdumpTest, NoBytesLeaveTheWidthToWhatFollowsAndTheStreamAsItIs) {
  std::ostringstream stream;
  stream << std::setw(3) << Hexdump{five, 0, 0, " "} << '|';
  EXPECT_EQ(stream.str(), "  |");
  stream.setstate(std::ios::eofbit);
  stream << Hexdump{five, 0, 0, " "};
  EXPECT_EQ(stream.rdstate(), std::ios::eofbit);
}

/// Groups every single digit.
struct Grouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\1"; }
  char do_thousands_sep() const override { return '\''; }
};

TEST(HexdumpTest, TheLocaleOfTheStreamPutsNothingBetweenTheDigits) {
  const std::string bytes(600, '\x5a');
  for (std::size_t size : {3U, 600U}) {
    const Hexdump dump{reinterpret_cast<const unsigned char*>(bytes.data()), size, 16, " "};
    std::ostringstream stream;
    stream.imbue(std::locale(std::locale::classic(), new Grouping));
    stream << dump;
    EXPECT_EQ(stream.str(), dumpedPlainly(dump, false));
  }
}

TEST(HexdumpTest, AStreamThatFailedTakesNothing) {
  const std::string bytes(600, 'x');
  std::ostringstream stream;
  stream.setstate(std::ios::badbit);
  stream << Hexdump{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), 0, " "};
  EXPECT_EQ(stream.str(), "");
}

}  // namespace
}  // namespace kes
