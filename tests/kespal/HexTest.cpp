#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <random>

#include "HexLoops.h"
#include "kespal/Helper.h"
#include "kespal/PlainModels.h"

namespace kes {
namespace {

using test::Bytes;
using test::plainFromHex;

/// The same as hex(), byte by byte as the C library formats it.
std::string plainHex(const Bytes& bytes, char separator, bool upper) {
  std::string text;
  for (unsigned char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof digits, upper ? "%.2X" : "%.2x", byte);
    text += digits;
    if (separator != 0) text += separator;
  }
  if (separator != 0 && !text.empty()) text.pop_back();
  return text;
}

Bytes randomBytes(std::mt19937& random, std::size_t size) {
  Bytes bytes(size, 0);
  for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
  return bytes;
}

TEST(HexTest, NoBytesAreAnEmptyTextEvenWithoutData) {
  EXPECT_EQ(hex("x", 0, 0, false), "");
  EXPECT_EQ(hex(nullptr, 0, ':', true), "");
}

TEST(HexTest, ANullPointerWithASizeIsShownAsNull) { EXPECT_EQ(hex(nullptr, 3, ':', false), "<null>"); }

TEST(HexTest, ASizeWhoseTextNoNumberCountsIsWantOfMemory) {
  constexpr std::size_t most = std::numeric_limits<std::size_t>::max();
  for (const std::size_t size : {most, most / 2 + 1, most / 3 + 1}) {
    for (const char separator : {'\0', ':'}) {
      EXPECT_THROW((void)hex("", size, separator, false), std::bad_alloc) << size;
    }
  }
}

TEST(HexTest, OneByteWithASeparatorHasNone) { EXPECT_EQ(hex("\x0f", 1, ':', false), "0f"); }

TEST(HexTest, ThreeBytesAreSixCharactersAndEightWithSeparators) {
  EXPECT_EQ(hex("\x01\xab\xff", 3, 0, false), "01abff");
  EXPECT_EQ(hex("\x01\xab\xff", 3, ':', false), "01:ab:ff");
}

TEST(HexTest, UpperCaseConcernsTheDigitsOnly) {
  EXPECT_EQ(hex("\xab\xcd", 2, 'x', true), "ABxCD");
  EXPECT_EQ(hex("\xab\xcd", 2, 'X', false), "abXcd");
}

TEST(HexTest, APercentSignIsASeparatorLikeAnyOther) {
  EXPECT_EQ(hex("\x01\x02\x03", 3, '%', false), "01%02%03");
}

TEST(HexTest, EveryByteValueHasItsTwoDigits) {
  Bytes all(256, 0);
  for (unsigned value = 0; value < 256; ++value) all[value] = static_cast<unsigned char>(value);
  for (char separator : {'\0', ':', '%', '\xff'}) {
    for (bool upper : {false, true}) {
      EXPECT_EQ(hex(all.data(), all.size(), separator, upper), plainHex(all, separator, upper));
    }
  }
}

TEST(HexTest, RandomBytesOfEverySizeAgreeWithThePlainModelAndComeBack) {
  std::mt19937 random(1);
  for (std::size_t size = 0; size < 300; ++size) {
    const Bytes bytes = randomBytes(random, size);
    for (char separator : {'\0', ':', '\n'}) {
      for (bool upper : {false, true}) {
        const std::string text = hex(bytes.data(), size, separator, upper);
        ASSERT_EQ(text, plainHex(bytes, separator, upper)) << size;
        ASSERT_EQ(from_hex(text), bytes) << size;
      }
    }
  }
}

TEST(HexTest, LargeSizesAgreeWithThePlainModel) {
  std::mt19937 random(2);
  for (std::size_t size : {4095U, 4096U, 4097U, 8191U, 8192U, 8193U, 100001U}) {
    const Bytes bytes = randomBytes(random, size);
    for (char separator : {'\0', '-'}) {
      ASSERT_EQ(hex(bytes.data(), size, separator, true), plainHex(bytes, separator, true)) << size;
    }
    ASSERT_EQ(from_hex(hex(bytes.data(), size, ' ', true)), bytes) << size;
  }
}

TEST(FromHexTest, UpperCaseWithColonsAndBlanksGivesTheBytesOfTheBareDigits) {
  const Bytes expected{0x0a, 0xbc, 0xde, 0xf0};
  EXPECT_EQ(from_hex("0abcdef0"), expected);
  EXPECT_EQ(from_hex("0A:BC DE:F0"), expected);
  EXPECT_EQ(from_hex(" :\t\n0A :\n: BC\tDE\nF0: \n"), expected);
}

TEST(FromHexTest, SeparatorsMayStandWithinAPair) { EXPECT_EQ(from_hex("a:b c\td"), (Bytes{0xab, 0xcd})); }

TEST(FromHexTest, NoDigitsAreNoBytes) {
  EXPECT_TRUE(from_hex("").empty());
  EXPECT_TRUE(from_hex(" ::\t\n").empty());
}

TEST(FromHexTest, AnOddNumberOfDigitsGivesNothing) {
  EXPECT_TRUE(from_hex("1").empty());
  EXPECT_TRUE(from_hex("ab:cd:e").empty());
}

TEST(FromHexTest, APairThatIsNotHexadecimalGivesNothing) {
  for (const char* text : {"0g", "g0", "zz", "12 3x", "0x", "--", "++", "1-", "12\r\r"}) {
    EXPECT_TRUE(from_hex(text).empty()) << text;
  }
  EXPECT_TRUE(from_hex(std::string("1\0", 2)).empty());
  EXPECT_TRUE(from_hex(std::string("\0001", 2)).empty());
}

TEST(FromHexTest, WhatTheCLibraryConsumesAsANumberOfTwoCharactersIsAByte) {
  EXPECT_EQ(from_hex("+1"), Bytes{0x01});
  EXPECT_EQ(from_hex("-1"), Bytes{0xff});
  EXPECT_EQ(from_hex("\r7"), Bytes{0x07});
}

TEST(FromHexTest, ABadCharacterAnywhereInALongTextGivesNothing) {
  const std::string good(200, 'a');
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (char bad : {'g', '/', '@', '`', '\x11', '\x1a', '\xb1', '\xe1', '\0'}) {
      std::string text = good;
      text[at] = bad;
      ASSERT_TRUE(from_hex(text).empty()) << at << ' ' << static_cast<int>(bad);
    }
  }
}

TEST(FromHexTest, RandomlyDamagedTextsAgreeWithThePlainModel) {
  std::mt19937 random(3);
  const std::string alphabet = "0123456789abcdefABCDEF: \t\n\r+-xXgG\x80";
  for (int round = 0; round < 20000; ++round) {
    const Bytes bytes = randomBytes(random, random() % 80);
    std::string text = hex(bytes.data(), bytes.size(), random() % 2 != 0 ? ':' : '\0', random() % 2 != 0);
    for (std::size_t damage = random() % 3; damage != 0 && !text.empty(); --damage) {
      const char c = alphabet[random() % alphabet.size()];
      const std::size_t at = random() % text.size();
      switch (random() % 3) {
        case 0:
          text[at] = c;
          break;
        case 1:
          text.insert(at, 1, c);
          break;
        default:
          text.erase(at, 1);
          break;
      }
    }
    ASSERT_EQ(from_hex(text), plainFromHex(text)) << text;
  }
}

/// What a loop wrote between two guards, and how far it came.
template <typename Char>
class Room {
 public:
  explicit Room(std::size_t size) : all_(size + 2 * guard, '?') {}

  Char* begin() { return all_.data() + guard; }
  /// With the guards, so that a write beyond the room shows as well.
  const std::basic_string<Char>& all() const { return all_; }

 private:
  static constexpr std::size_t guard = 32;
  std::basic_string<Char> all_;
};

void expectSameWriting(const Bytes& bytes, std::size_t from) {
  const unsigned char* first = bytes.data() + from;
  const std::size_t size = bytes.size() - from;
  for (bool upper : {false, true}) {
    Room<char> plain(2 * size), best(2 * size);
    hexloops::plain::encode(first, size, upper, plain.begin());
    hexloops::best::encode(first, size, upper, best.begin());
    ASSERT_EQ(best.all(), plain.all()) << size;
    for (char separator : {':', '\xff'}) {
      Room<char> plainApart(3 * size), bestApart(3 * size);
      hexloops::plain::encodeSeparated(first, size, separator, upper, plainApart.begin());
      hexloops::best::encodeSeparated(first, size, separator, upper, bestApart.begin());
      ASSERT_EQ(bestApart.all(), plainApart.all()) << size;
    }
  }
}

void expectSameReading(const std::string& text) {
  Room<unsigned char> plainBytes(text.size() / 2), bestBytes(text.size() / 2);
  hexloops::Decoding plain{text.data(), text.data() + text.size(), plainBytes.begin()}, best = plain;
  best.bytes = bestBytes.begin();
  hexloops::plain::decode(plain);
  hexloops::best::decode(best);
  ASSERT_EQ(best.text - text.data(), plain.text - text.data()) << text;
  ASSERT_EQ(best.bytes - bestBytes.begin(), plain.bytes - plainBytes.begin()) << text;
  ASSERT_EQ(bestBytes.all(), plainBytes.all()) << text;
}

TEST(HexLoopsTest, TheBestLoopsWriteWhatThePlainOnesWrite) {
  std::mt19937 random(4);
  for (std::size_t size = 0; size <= 200; ++size) {
    for (std::size_t from = 0; from <= std::min<std::size_t>(size, 16); ++from) {
      ASSERT_NO_FATAL_FAILURE(expectSameWriting(randomBytes(random, size), from));
    }
  }
}

TEST(HexLoopsTest, TheBestLoopsReadAsFarAsThePlainOnes) {
  std::mt19937 random(5);
  for (int round = 0; round < 20000; ++round) {
    const Bytes bytes = randomBytes(random, random() % 60);
    std::string text = hex(bytes.data(), bytes.size(), 0, random() % 2 != 0);
    if (!text.empty() && random() % 2 != 0) text[random() % text.size()] = static_cast<char>(random());
    ASSERT_NO_FATAL_FAILURE(expectSameReading(text));
  }
}

TEST(HexLoopsTest, TheBestLoopsStopWhereverAndWhateverABadDigitIs) {
  std::mt19937 random(6);
  const Bytes bytes = randomBytes(random, 100);
  for (std::size_t size = 0; size <= 200; ++size) {
    const std::string good = hex(bytes.data(), bytes.size(), 0, size % 2 != 0).substr(0, size);
    ASSERT_NO_FATAL_FAILURE(expectSameReading(good));
    for (std::size_t at = 0; at < size; ++at) {
      std::string text = good;
      text[at] = "g/@`:G \xb1"[random() % 8];
      ASSERT_NO_FATAL_FAILURE(expectSameReading(text));
    }
  }
  for (unsigned character = 0; character < 256; ++character) {
    for (std::size_t at = 0; at < 64; ++at) {
      std::string text = hex(bytes.data(), 32, 0, character % 2 != 0);
      text[at] = static_cast<char>(character);
      ASSERT_NO_FATAL_FAILURE(expectSameReading(text));
    }
  }
}

}  // namespace
}  // namespace kes
