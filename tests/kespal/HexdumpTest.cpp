#include "kespal/Hexdump.h"

#include <iomanip>
#include <locale>
#include <random>
#include <sstream>

namespace kes {
namespace {

const unsigned char five[] = {0x01, 0xab, 0x00, 0xff, 0x10};

/// The same as the stream operator, byte by byte.
void dumpPlainly(std::ostream& stream, const Hexdump& dump) {
  const char fill = stream.fill('0');
  const auto flags = stream.flags();
  stream << std::hex;
  for (std::size_t index = 0; index < dump.size; ++index) {
    if (index != 0) {
      if (dump.perLine > 0 && index % static_cast<std::size_t>(dump.perLine) == 0) {
        stream << "\n";
      } else {
        stream << dump.separator;
      }
    }
    stream << std::setw(2) << static_cast<unsigned>(dump.data[index]);
  }
  stream.fill(fill);
  stream.flags(flags);
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

TEST(HexdumpTest, EveryFormatFlagActsAsOnSingleNumbers) {
  std::mt19937 random(1);
  std::string bytes(2000, 0);
  for (char& byte : bytes) byte = static_cast<char>(random());
  using Flags = std::ios::fmtflags;
  const Flags flags[] = {Flags{},
                         std::ios::uppercase,
                         std::ios::showbase,
                         std::ios::left,
                         std::ios::internal | std::ios::showbase,
                         std::ios::uppercase | std::ios::showbase | std::ios::left};
  for (Flags flag : flags) {
    for (std::size_t size : {0U, 1U, 17U, 511U, 512U, 2000U}) {
      for (int perLine : {0, 1, 7, 16, 512, 5000}) {
        for (const char* separator : {"", " ", ", ", "0123456789abc", "0123456789abcdef"}) {
          const Hexdump dump{reinterpret_cast<const unsigned char*>(bytes.data()), size, perLine, separator};
          std::ostringstream model, stream;
          model.setf(flag);
          stream.setf(flag);
          dumpPlainly(model, dump);
          stream << dump;
          ASSERT_EQ(stream.str(), model.str()) << flag << ' ' << size << ' ' << perLine << separator;
          ASSERT_EQ(stream.width(), model.width());
        }
      }
    }
  }
}

/// Groups every single digit.
struct Grouping : std::numpunct<char> {
  std::string do_grouping() const override { return "\1"; }
  char do_thousands_sep() const override { return '\''; }
};

TEST(HexdumpTest, TheLocaleOfTheStreamActsAsOnSingleNumbers) {
  const std::string bytes(600, '\x5a');
  for (std::size_t size : {3U, 600U}) {
    const Hexdump dump{reinterpret_cast<const unsigned char*>(bytes.data()), size, 16, " "};
    std::ostringstream model, stream;
    model.imbue(std::locale(std::locale::classic(), new Grouping));
    stream.imbue(model.getloc());
    dumpPlainly(model, dump);
    stream << dump;
    EXPECT_EQ(stream.str(), model.str());
    EXPECT_EQ(stream.str().substr(0, 7), "5'a 5'a");
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
