#include "kesos/strings.h"

#include <sys/mman.h>
#include <unistd.h>

#include <clocale>
#include <cstdint>
#include <cstring>
#include <random>

namespace {

/// A buffer whose bytes are all `fill` until something is written, with guard bytes behind the capacity.
struct Buffer {
  explicit Buffer(std::size_t capacity, const std::string& text = "", char fill = 'x')
      : size(capacity), bytes(capacity + guard, fill) {
    if (text.size() < bytes.size()) bytes.replace(0, text.size() + 1, text.c_str(), text.size() + 1);
  }
  char* data() { return bytes.data(); }
  std::string text() const { return bytes.c_str(); }

  static constexpr std::size_t guard = 16;
  std::size_t size;
  std::string bytes;
};

TEST(StringsTest, ACopyIntoOneByteIsTheEmptyString) {
  Buffer buffer(1, "", 'x');
  EXPECT_EQ(strcpy_kes(buffer.data(), 1, "abc"), buffer.data());
  EXPECT_EQ(buffer.text(), "");
  EXPECT_EQ(buffer.bytes[1], 'x');
}

TEST(StringsTest, ACopyThatJustFitsIsWhole) {
  Buffer buffer(4);
  EXPECT_EQ(strcpy_kes(buffer.data(), 4, "abc"), buffer.data());
  EXPECT_EQ(buffer.text(), "abc");
  EXPECT_EQ(buffer.bytes[4], 'x');
}

TEST(StringsTest, ACopyThatDoesNotFitIsCutAndTerminated) {
  Buffer buffer(3);
  strcpy_kes(buffer.data(), 3, "abc");
  EXPECT_EQ(buffer.text(), "ab");
  EXPECT_EQ(buffer.bytes[3], 'x');
}

TEST(StringsTest, ACapacityOfZeroLeavesTheDestinationUntouched) {
  Buffer buffer(8, "keep");
  EXPECT_EQ(strcpy_kes(buffer.data(), 0, "abc"), buffer.data());
  EXPECT_EQ(strncpy_kes(buffer.data(), 0, "abc", 2), buffer.data());
  EXPECT_EQ(strncpy_kes(buffer.data(), 0, "abc", SIZE_MAX), buffer.data());
  EXPECT_EQ(strcat_kes(buffer.data(), 0, "abc"), buffer.data());
  EXPECT_EQ(strncat_kes(buffer.data(), 0, "abc", 2), buffer.data());
  EXPECT_EQ(sprintf_kes(buffer.data(), 0, "%s", "abc"), 0);
  EXPECT_EQ(buffer.text(), "keep");
}

TEST(StringsTest, NullPointersGiveNull) {
  Buffer buffer(8, "keep");
  EXPECT_EQ(strcpy_kes(nullptr, 8, "a"), nullptr);
  EXPECT_EQ(strcpy_kes(buffer.data(), 8, nullptr), nullptr);
  EXPECT_EQ(strncpy_kes(nullptr, 8, "a", 1), nullptr);
  EXPECT_EQ(strncpy_kes(buffer.data(), 8, nullptr, 1), nullptr);
  EXPECT_EQ(strncpy_kes(buffer.data(), 0, nullptr, SIZE_MAX), nullptr);
  EXPECT_EQ(strcat_kes(nullptr, 8, "a"), nullptr);
  EXPECT_EQ(strcat_kes(buffer.data(), 8, nullptr), nullptr);
  EXPECT_EQ(strncat_kes(nullptr, 8, "a", 1), nullptr);
  EXPECT_EQ(strncat_kes(buffer.data(), 8, nullptr, 1), nullptr);
  EXPECT_EQ(strupr(nullptr), nullptr);
  EXPECT_EQ(strlwr(nullptr), nullptr);
  EXPECT_EQ(strlen_kes(nullptr, 8), 0U);
  strclear(nullptr);
  EXPECT_EQ(buffer.text(), "keep");
}

TEST(StringsTest, ALengthIsBoundedByItsMaximum) {
  EXPECT_EQ(strlen_kes("abc", 0), 0U);
  EXPECT_EQ(strlen_kes("abc", 2), 2U);
  EXPECT_EQ(strlen_kes("abc", 3), 3U);
  EXPECT_EQ(strlen_kes("abc", SIZE_MAX), 3U);
}

TEST(StringsTest, ABoundedCopyTakesNBytesAndTerminatesThem) {
  Buffer buffer(8);
  EXPECT_EQ(strncpy_kes(buffer.data(), 8, "abcdef", 3), buffer.data());
  EXPECT_EQ(buffer.text(), "abc");
  EXPECT_EQ(buffer.bytes[4], 'x');
  strncpy_kes(buffer.data(), 8, "abcdef", 7);
  EXPECT_EQ(buffer.text(), "abcdef");
}

TEST(StringsTest, ABoundedCopyOfMoreThanFitsIsAPlainCopy) {
  Buffer buffer(4);
  strncpy_kes(buffer.data(), 4, "abcdef", 4);
  EXPECT_EQ(buffer.text(), "abc");
  EXPECT_EQ(buffer.bytes[4], 'x');
}

TEST(StringsTest, ABoundedCopyOfTheLargestCountLeavesTheDestinationUntouched) {
  Buffer buffer(8, "keep");
  EXPECT_EQ(strncpy_kes(buffer.data(), 8, "abc", SIZE_MAX), buffer.data());
  EXPECT_EQ(buffer.text(), "keep");
}

TEST(StringsTest, ABoundedCopyReadsNoByteBeyondN) {
  const std::vector<char> source{'a', 'b', 'c'};  // the sanitizer watches its end
  Buffer buffer(8);
  strncpy_kes(buffer.data(), 8, source.data(), source.size());
  EXPECT_EQ(buffer.text(), "abc");
}

TEST(StringsTest, AnAppendThatFitsIsWhole) {
  Buffer buffer(6, "ab");
  EXPECT_EQ(strcat_kes(buffer.data(), 6, "cde"), buffer.data());
  EXPECT_EQ(buffer.text(), "abcde");
  EXPECT_EQ(buffer.bytes[6], 'x');
}

TEST(StringsTest, AnAppendThatReachesTheCapacityIsCut) {
  Buffer buffer(5, "ab");
  strcat_kes(buffer.data(), 5, "cde");
  EXPECT_EQ(buffer.text(), "abcd");
  EXPECT_EQ(buffer.bytes[5], 'x');
}

TEST(StringsTest, AnAppendToALongerTextThanTheCapacityChangesNothing) {
  Buffer buffer(8, "abcdef");
  EXPECT_EQ(strcat_kes(buffer.data(), 5, "x"), buffer.data());
  EXPECT_EQ(strncat_kes(buffer.data(), 5, "x", 1), buffer.data());
  EXPECT_EQ(buffer.text(), "abcdef");
}

TEST(StringsTest, AnAppendToATextOfExactlyTheCapacityForcesTheLastByteToZero) {
  Buffer buffer(8, "abcdef");
  strcat_kes(buffer.data(), 6, "x");
  EXPECT_EQ(std::string(buffer.data(), 8), std::string("abcde\0\0x", 8));
  Buffer other(8, "abcdef");
  strncat_kes(other.data(), 6, "x", 1);
  EXPECT_EQ(std::string(other.data(), 8), std::string("abcde\0\0x", 8));
}

TEST(StringsTest, ABoundedAppendOfNothingChangesNothing) {
  Buffer buffer(4, "abcd");
  EXPECT_EQ(strncat_kes(buffer.data(), 4, "x", 0), buffer.data());
  EXPECT_EQ(buffer.text(), "abcd");
}

TEST(StringsTest, ABoundedAppendOfALongerSourceSetsNoTerminatorOfItsOwn) {
  Buffer buffer(100, "");
  EXPECT_EQ(strncat_kes(buffer.data(), 100, "abcdef", 3), buffer.data());
  EXPECT_EQ(buffer.bytes, "abc" + std::string(97 + Buffer::guard, 'x'));
}

TEST(StringsTest, ABoundedAppendThatFitsPadsWithZerosWithinTheCapacity) {
  Buffer buffer(8, "ab");
  strncat_kes(buffer.data(), 8, "c", 100);
  EXPECT_EQ(buffer.bytes, std::string("abc\0\0\0\0\0", 8) + std::string(Buffer::guard, 'x'));
  Buffer other(8, "ab");
  strncat_kes(other.data(), 8, "c", 3);
  EXPECT_EQ(other.bytes, std::string("abc\0\0xxx", 8) + std::string(Buffer::guard, 'x'));
}

TEST(StringsTest, ABoundedAppendThatDoesNotFitIsCut) {
  Buffer buffer(5, "ab");
  strncat_kes(buffer.data(), 5, "cdefgh", 4);
  EXPECT_EQ(buffer.text(), "abcd");
  EXPECT_EQ(buffer.bytes[5], 'x');
}

TEST(StringsTest, ABoundedAppendOfASourceThatWouldNotFitForcesTheTerminatorHoweverFewBytesItTakes) {
  Buffer buffer(8, "ab");
  EXPECT_EQ(strncat_kes(buffer.data(), 8, "cdefghijkl", 3), buffer.data());
  EXPECT_EQ(buffer.bytes, std::string("abcdexx\0", 8) + std::string(Buffer::guard, 'x'));
  Buffer exact(8, "ab");
  strncat_kes(exact.data(), 8, "cdefgh", 1);
  EXPECT_EQ(exact.bytes, std::string("abcxxxx\0", 8) + std::string(Buffer::guard, 'x')) << "joined, 8 bytes";
  Buffer shorter(8, "ab");
  strncat_kes(shorter.data(), 8, "cdefg", 1);
  EXPECT_EQ(shorter.bytes, "abcxxxxx" + std::string(Buffer::guard, 'x')) << "joined, 7 bytes: all fits";
}

TEST(StringsTest, ABoundedAppendReadsNoMoreThanThereIsRoomFor) {
  const std::vector<char> source{'c', 'd'};  // the sanitizer watches its end
  Buffer buffer(4, "ab");
  strncat_kes(buffer.data(), 4, source.data(), source.size());
  EXPECT_EQ(buffer.text(), "abc");
}

TEST(StringsTest, AnAppendWithoutCapacityOrCountDoesNotReadTheDestination) {
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const guarded = ::mmap(nullptr, page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(guarded, MAP_FAILED);
  auto* const text = static_cast<char*>(guarded);
  EXPECT_EQ(strcat_kes(text, 0, "x"), text);
  EXPECT_EQ(strncat_kes(text, 0, "x", 1), text);
  EXPECT_EQ(strncat_kes(text, 5, "x", 0), text);
  ::munmap(guarded, page);
}

TEST(StringsTest, TheLargestCapacityDoesNotWrapAround) {
  Buffer buffer(16, "ab");
  strcat_kes(buffer.data(), SIZE_MAX, "cd");
  EXPECT_EQ(buffer.text(), "abcd");
  strncat_kes(buffer.data(), SIZE_MAX, "ef", 3);
  EXPECT_EQ(buffer.text(), "abcdef");
}

TEST(StringsTest, FormattingMoreThanFitsReturnsTheFullLengthAndCuts) {
  Buffer buffer(5);
  EXPECT_EQ(sprintf_kes(buffer.data(), 5, "%s-%d", "abc", 1234), 8);
  EXPECT_EQ(buffer.text(), "abc-");
  EXPECT_EQ(buffer.bytes[5], 'x');
}

TEST(StringsTest, FormattingIntoNothingMeasures) {
  EXPECT_EQ(sprintf_kes(nullptr, 5, "%s", "abcdefgh"), 8);
  EXPECT_EQ(sprintf_kes(nullptr, 0, "%s", "abcdefgh"), 0);
}

TEST(StringsTest, AFormatThatCannotBeConvertedGivesTheLengthOfWhatIsThere) {
  Buffer buffer(32, "earlier");
  const int length = sprintf_kes(buffer.data(), 32, "ab%lc", static_cast<wint_t>(0x7fffffff));
  EXPECT_EQ(static_cast<std::size_t>(length), buffer.text().size());
}

TEST(StringsTest, BytesAbove127AreFormattedAsTheyAre) {
  Buffer buffer(8);
  EXPECT_EQ(sprintf_kes(buffer.data(), 8, "%c%s%c", '\xe9', "\x80", 0xff), 3);
  EXPECT_STREQ(buffer.data(), "\xe9\x80\xff");
}

TEST(StringsTest, MoreArgumentsThanRegistersAreFormattedInTheirOrderAndMeasuredTheSame) {
  const auto format = [](char* text, std::size_t size) {
    return sprintf_kes(text, size, "%d %g %d %g %d %g %d %g %d %g %d %g %d %g %d %g %d %g %d %g %s %lld", 1,
                       1.5, 2, 2.5, 3, 3.5, 4, 4.5, 5, 5.5, 6, 6.5, 7, 7.5, 8, 8.5, 9, 9.5, 10, 10.5, "text",
                       -1LL);
  };
  const std::string expected = "1 1.5 2 2.5 3 3.5 4 4.5 5 5.5 6 6.5 7 7.5 8 8.5 9 9.5 10 10.5 text -1";
  Buffer whole(100), cut(10);
  EXPECT_EQ(format(nullptr, 1), static_cast<int>(expected.size()));
  EXPECT_EQ(format(cut.data(), 10), static_cast<int>(expected.size()));
  EXPECT_EQ(cut.data(), expected.substr(0, 9));
  EXPECT_EQ(format(whole.data(), 100), static_cast<int>(expected.size()));
  EXPECT_EQ(whole.data(), expected);
}

TEST(StringsTest, ClearingMakesTheStringEmpty) {
  Buffer buffer(8, "abc");
  strclear(buffer.data());
  EXPECT_EQ(std::string(buffer.data(), 3), std::string("\0bc", 3));
}

TEST(StringsTest, CaseIsConvertedByTheRuleOfTheCLocaleInEveryLocale) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
  std::string upper = all, lower = all;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::setlocale(LC_ALL, "");
  std::string text = all;
  EXPECT_EQ(strupr(text.data()), text.data());
  EXPECT_EQ(text, upper);
  text = all;
  EXPECT_EQ(strlwr(text.data()), text.data());
  EXPECT_EQ(text, lower);
  std::string empty;
  EXPECT_STREQ(strupr(empty.data()), "");
}

// Plain models: what each function leaves in a buffer, said with std::string.

std::string modelCopy(std::string buffer, std::size_t size, const std::string& source) {
  if (size == 0) return buffer;
  const std::string kept = source.substr(0, size - 1) + '\0';
  return buffer.replace(0, kept.size(), kept);
}

std::string modelBoundedCopy(const std::string& buffer, std::size_t size, const std::string& source,
                             std::size_t n) {
  return modelCopy(buffer, size, n < size ? source.substr(0, n) : source);
}

std::string modelAppend(std::string buffer, std::size_t size, const std::string& source) {
  const std::string old = buffer.c_str();
  if (size == 0 || old.size() > size) return buffer;
  const std::string joined = (old + source).substr(0, size - 1) + '\0';
  return buffer.replace(0, joined.size(), joined);
}

std::string modelBoundedAppend(std::string buffer, std::size_t size, const std::string& source,
                               std::size_t n) {
  const std::string old = buffer.c_str();
  if (size == 0 || n == 0 || old.size() > size) return buffer;
  const std::string taken = source.substr(0, n);
  const std::size_t padded = std::min(n, size - old.size());
  if (old.size() + source.size() >= size) {
    buffer.replace(old.size(), padded, taken.substr(0, padded));
    buffer[size - 1] = '\0';
    return buffer;
  }
  return buffer.replace(old.size(), padded, taken + std::string(padded - taken.size(), '\0'));
}

struct RandomCase {
  explicit RandomCase(std::mt19937& random) {
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    const auto letters = [&](std::size_t count) {
      std::string text;
      while (text.size() < count) text.push_back(static_cast<char>('a' + below(26)));
      return text;
    };
    buffer = std::string(40, '#');
    const std::string old = letters(below(20));
    buffer.replace(0, old.size() + 1, old + '\0');
    source = letters(below(24));
    size = below(24);
    n = below(30);
  }
  std::string buffer, source;
  std::size_t size, n;
};

TEST(StringsTest, RandomCallsAgreeWithPlainModels) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 50000; ++round) {
    const RandomCase c(random);
    std::string got = c.buffer;
    strcpy_kes(got.data(), c.size, c.source.c_str());
    ASSERT_EQ(got, modelCopy(c.buffer, c.size, c.source)) << round;
    got = c.buffer;
    strncpy_kes(got.data(), c.size, c.source.c_str(), c.n);
    ASSERT_EQ(got, modelBoundedCopy(c.buffer, c.size, c.source, c.n)) << round;
    got = c.buffer;
    strcat_kes(got.data(), c.size, c.source.c_str());
    ASSERT_EQ(got, modelAppend(c.buffer, c.size, c.source)) << round;
    got = c.buffer;
    strncat_kes(got.data(), c.size, c.source.c_str(), c.n);
    ASSERT_EQ(got, modelBoundedAppend(c.buffer, c.size, c.source, c.n)) << round;
  }
}

}  // namespace
