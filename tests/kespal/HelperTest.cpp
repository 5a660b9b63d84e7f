#include "kespal/Helper.h"

#include <malloc.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <clocale>
#include <new>
#include <random>

#include "kespal/PlainModels.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"

namespace kes {
namespace {

std::string demangled(std::string name) {
  demangle(name);
  return name;
}

TEST(DemangleTest, AMangledNameBecomesReadable) {
  EXPECT_EQ(demangled("_ZN3kes8demangleERi"), "kes::demangle(int&)");
  EXPECT_EQ(demangled("_Z1fv"), "f()");
}

TEST(DemangleTest, AnyOtherTextStaysAsItIs) {
  for (const char* name : {"", "main", "_Z", "_ZN3kes", "not a name", "_ZN3kes8demangleERi+0x1"}) {
    EXPECT_EQ(demangled(name), name);
  }
}

}  // namespace
}  // namespace kes

namespace kes::helper {
namespace {

using test::Parts;
using test::plainReplace;
using test::plainReplaceChars;
using test::plainSplit;

Parts splitOf(const std::string& text, char delimiter, bool strip, bool keepEmpty) {
  Parts parts{"earlier", "content"};
  split(text, delimiter, parts, strip, keepEmpty);
  return parts;
}

std::string randomText(std::mt19937& random, std::size_t longest, const std::string& alphabet) {
  std::string text(random() % (longest + 1), 0);
  for (char& c : text) c = alphabet[random() % alphabet.size()];
  return text;
}

// --- split

TEST(SplitTest, WithoutKeepEmptyOnlyPiecesWithContentAreStored) {
  EXPECT_EQ(splitOf(",a,,b,", ',', false, false), (Parts{"a", "b"}));
}

TEST(SplitTest, WithKeepEmptyEveryPieceIsStored) {
  EXPECT_EQ(splitOf(",a,,b,", ',', false, true), (Parts{"", "a", "", "b", ""}));
}

TEST(SplitTest, ATextWithoutDelimiterIsOnePiece) {
  EXPECT_EQ(splitOf("abc", ',', false, false), Parts{"abc"});
  EXPECT_EQ(splitOf("abc", ',', false, true), Parts{"abc"});
}

TEST(SplitTest, AnEmptyTextIsNoPieceOrOneEmptyPiece) {
  EXPECT_EQ(splitOf("", ',', false, false), Parts{});
  EXPECT_EQ(splitOf("", ',', false, true), Parts{""});
}

TEST(SplitTest, DelimitersAloneAreNoPieces) {
  EXPECT_EQ(splitOf(",,,", ',', false, false), Parts{});
  EXPECT_EQ(splitOf(",,,", ',', false, true), (Parts{"", "", "", ""}));
}

TEST(SplitTest, StripTakesWhiteSpaceFromBothEndsOfEveryPiece) {
  EXPECT_EQ(splitOf(" a b ,\tc\n, ", ',', true, true), (Parts{"a b", "c", ""}));
}

TEST(SplitTest, APieceThatStripEmptiesIsStoredOnlyWithKeepEmpty) {
  EXPECT_EQ(splitOf("a, ,b", ',', true, false), (Parts{"a", "b"}));
  EXPECT_EQ(splitOf("a, ,b", ',', true, true), (Parts{"a", "", "b"}));
  EXPECT_EQ(splitOf("a, ,b", ',', false, false), (Parts{"a", " ", "b"}));
}

TEST(SplitTest, ANullCharacterDelimitsAndIsTextLikeAnyOther) {
  const std::string text("a\0b,c", 5);
  EXPECT_EQ(splitOf(text, '\0', false, false), (Parts{"a", "b,c"}));
  EXPECT_EQ(splitOf(text, ',', false, false), (Parts{std::string("a\0b", 3), "c"}));
}

TEST(SplitTest, ATextThatIsOneOfThePartsIsSplitAllTheSame) {
  Parts parts{"first", "a,b,c", "last"};
  split(parts[1], ',', parts, false, false);
  EXPECT_EQ(parts, (Parts{"a", "b", "c"}));
}

TEST(SplitTest, AnEmptyVectorGrowsOnceToTheNumberOfPieces) {
  for (const char* text : {"a,b,c", ",a,b,,c,", ",a,b,c", "a,b,c,"}) {
    for (const bool keepEmpty : {false, true}) {
      Parts parts;
      split(text, ',', parts, false, keepEmpty);
      EXPECT_EQ(parts.capacity(), parts.size()) << text;
    }
  }
}

TEST(SplitTest, RandomTextsAgreeWithThePlainModel) {
  std::mt19937 random(1);
  Parts parts;
  for (int round = 0; round < 20000; ++round) {
    const std::string text = randomText(random, 40, "ab ,,;\t");
    const bool strip = random() % 2 != 0, keepEmpty = random() % 2 != 0;
    split(text, ',', parts, strip, keepEmpty);
    ASSERT_EQ(parts, plainSplit(text, ',', strip, keepEmpty)) << '"' << text << '"' << strip << keepEmpty;
  }
}

// --- replace

/// How many were replaced, and what came of the text.
using Result = std::pair<std::size_t, std::string>;

Result replaced(std::string text, const std::string& pattern, const std::string& with) {
  const std::size_t count = replace(text, pattern, with);
  return {count, text};
}

Result charsReplaced(std::string text, const std::string& chars, const std::string& with) {
  const std::size_t count = replace_chars(text, chars, with);
  return {count, text};
}

TEST(ReplaceTest, ADoubledLetterIsNotReplacedAgain) {
  EXPECT_EQ(replaced("aaa", "a", "aa"), Result(3, "aaaaaa"));
}

TEST(ReplaceTest, OccurrencesAreTakenFromTheLeftWithoutOverlap) {
  EXPECT_EQ(replaced("aaaaa", "aa", "b"), Result(2, "bba"));
}

TEST(ReplaceTest, AnEmptyReplacementDeletes) {
  EXPECT_EQ(replaced("one, two, three", ", ", ""), Result(2, "onetwothree"));
}

TEST(ReplaceTest, WhatADeletionBringsTogetherIsNotReplaced) {
  EXPECT_EQ(replaced("aabb", "ab", ""), Result(1, "ab"));
}

TEST(ReplaceTest, APatternThatDoesNotOccurChangesNothing) {
  EXPECT_EQ(replaced("text", "x ", "y"), Result(0, "text"));
  EXPECT_EQ(replaced("text", "longer than the text", "y"), Result(0, "text"));
  EXPECT_EQ(replaced("", "x", "y"), Result(0, ""));
}

TEST(ReplaceTest, AnEmptyPatternOccursNowhere) { EXPECT_EQ(replaced("text", "", "y"), Result(0, "text")); }

TEST(ReplaceTest, TheTextMayBeItsOwnPatternOrReplacement) {
  std::string text = "abab";
  EXPECT_EQ(replace(text, text, "x"), 1U);
  EXPECT_EQ(text, "x");
  EXPECT_EQ(replace(text, "x", text), 1U);
  EXPECT_EQ(text, "x");
}

TEST(ReplaceTest, RandomTextsAgreeWithThePlainModel) {
  std::mt19937 random(2);
  for (int round = 0; round < 20000; ++round) {
    const std::string original = randomText(random, 60, "aab");
    const std::string pattern = 'a' + randomText(random, 2, "ab"), with = randomText(random, 4, "abc");
    std::string text = original, model = original;
    ASSERT_EQ(replace(text, pattern, with), plainReplace(model, pattern, with)) << original << ' ' << pattern;
    ASSERT_EQ(text, model) << original << ' ' << pattern << ' ' << with;
  }
}

// --- replace_chars

TEST(ReplaceCharsTest, EveryCharacterOfTheSetIsReplaced) {
  EXPECT_EQ(charsReplaced("a:b c:d", ": ", "--"), Result(3, "a--b--c--d"));
}

TEST(ReplaceCharsTest, AReplacementFromTheSetIsNotReplacedAgain) {
  EXPECT_EQ(charsReplaced("a:b", ":", "::"), Result(1, "a::b"));
}

TEST(ReplaceCharsTest, AnEmptyReplacementDeletes) {
  EXPECT_EQ(charsReplaced(":a: b\t\n:", ": \t\n", ""), Result(6, "ab"));
}

TEST(ReplaceCharsTest, AnEmptyTextOrSetChangesNothing) {
  EXPECT_EQ(charsReplaced("", "a", "b"), Result(0, ""));
  EXPECT_EQ(charsReplaced("aaa", "", "b"), Result(0, "aaa"));
}

TEST(ReplaceCharsTest, CharactersAboveAsciiAndTheNullCharacterAreCharactersLikeAnyOther) {
  const std::string text("\xff\0a\x80", 4), chars("\0\xff", 2);
  EXPECT_EQ(charsReplaced(text, chars, "."), Result(2, "..a\x80"));
}

TEST(ReplaceCharsTest, TheTextMayBeItsOwnSetOrReplacement) {
  std::string text = "abc";
  EXPECT_EQ(replace_chars(text, text, ""), 3U);
  EXPECT_EQ(text, "");
  text = "ab";
  EXPECT_EQ(replace_chars(text, "a", text), 1U);
  EXPECT_EQ(text, "abb");
}

TEST(ReplaceCharsTest, RandomTextsAgreeWithThePlainModel) {
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    const std::string original = randomText(random, 60, "abcd:\t\xff");
    const std::string chars = 'a' + randomText(random, 3, "b:\xff"), with = randomText(random, 3, "a:x");
    std::string text = original, model = original;
    ASSERT_EQ(replace_chars(text, chars, with), plainReplaceChars(model, chars, with)) << original;
    ASSERT_EQ(text, model) << original << ' ' << chars << ' ' << with;
  }
}

// --- makeStripped

std::string stripped(std::string text, char c) {
  makeStripped(text, c);
  return text;
}

TEST(MakeStrippedTest, AnAllBlankTextBecomesEmpty) { EXPECT_EQ(stripped(" \t\n\v\f\r ", 0), ""); }

TEST(MakeStrippedTest, WhiteSpaceGoesFromBothEndsOnly) { EXPECT_EQ(stripped("\n a b\t", 0), "a b"); }

TEST(MakeStrippedTest, AGivenCharacterGoesInsteadOfWhiteSpace) {
  EXPECT_EQ(stripped("\"a\" b\"\"", '"'), "a\" b");
  EXPECT_EQ(stripped(" xax ", 'x'), " xax ");
  EXPECT_EQ(stripped("xxx", 'x'), "");
}

TEST(MakeStrippedTest, AnEmptyTextStaysEmpty) {
  EXPECT_EQ(stripped("", 0), "");
  EXPECT_EQ(stripped("", 'x'), "");
}

TEST(MakeStrippedTest, CharactersAboveAsciiAreNoWhiteSpaceInThePlainLocale) {
  EXPECT_EQ(stripped("\xa0x\xff", 0), "\xa0x\xff");
}

TEST(MakeStrippedTest, WhatIsWhiteSpaceIsUpToTheCurrentLocale) {
  // Each locale is asked by the C library itself, so whatever this machine has installed is right.
  const test::ChildResult result = test::inChild([] {
    for (const char* name : {"C", "C.UTF-8", "en_US.ISO-8859-1", "de_DE.ISO-8859-1", "tr_TR.ISO-8859-9"}) {
      if (std::setlocale(LC_ALL, name) == nullptr) continue;
      for (int c = 1; c < 256; ++c) {
        const bool gone = stripped(std::string(1, static_cast<char>(c)), 0).empty();
        if (gone != (std::isspace(c) != 0)) return 1;
      }
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

// --- time grows with the length, not with its square

/// The shortest of some runs, in seconds.
template <typename Work>
double shortestTime(const Work& work) {
  double best = 1e9;
  for (int run = 0; run < 3; ++run) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
  }
  return best;
}

/// Sixteen times the text takes sixteen times as long, and 256 times where the time grows with the square of
/// the length. The short one is worked on sixteen times, so that both measurements last equally long and
/// suffer alike from what else the machine does.
template <typename Work>
void expectLinear(const std::string& unit, const Work& work) {
  // Large blocks come from the heap as small ones do: else the long text pays for fresh pages each time.
  ::mallopt(M_MMAP_THRESHOLD, 1 << 30);
  ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
  std::string small;
  while (small.size() < std::size_t{64} * 1024) small += unit;
  std::string large;
  for (int copy = 0; copy < 16; ++copy) large += small;
  double ratio = 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    const double sixteen = shortestTime([&] {
      for (int copy = 0; copy < 16; ++copy) work(small);
    });
    ratio = 16 * shortestTime([&] { work(large); }) / sixteen;
    if (ratio <= 64) return;
  }
  ADD_FAILURE() << "1 MiB costs " << ratio << " times as much as 64 KiB";
}

TEST(HelperMemoryTest, ATextIsChangedInFullOrNotAtAll) {
  const std::string before = "a text: with, something: to, replace: in, many: places";
  for (std::size_t allowed = 0;; ++allowed) {
    std::string replaced = before, charsReplaced = before;
    bool refused = false;
    {
      const test::NoMemory starving(allowed);
      try {
        replace(replaced, ": ", " is a much longer text ");
        replace_chars(charsReplaced, ":,", " is a much longer text ");
      } catch (const std::bad_alloc&) {
        refused = true;
      }
    }
    if (!refused) break;
    EXPECT_TRUE(replaced == before || replaced.find(": ") == std::string::npos) << replaced;
    EXPECT_EQ(charsReplaced, before);
  }
}

TEST(LinearTimeTest, SplitIntoAFreshVectorAndIntoAUsedOne) {
  expectLinear("some,,text,", [](const std::string& text) { return splitOf(text, ',', true, false).size(); });
  Parts parts;
  expectLinear("some,,text,", [&](const std::string& text) { split(text, ',', parts, false, true); });
}

TEST(LinearTimeTest, ReplaceByALongerTextByAShorterOneAndByNone) {
  for (const char* with : {"longer", "x", ""}) {
    expectLinear("pat.", [with](std::string text) { return replace(text, "pat", with); });
  }
}

TEST(LinearTimeTest, ReplaceCharsByALongerTextByOneAndByNone) {
  for (const char* with : {"longer", "x", ""}) {
    expectLinear("ab:cd ", [with](std::string text) { return replace_chars(text, ": ", with); });
  }
}

TEST(LinearTimeTest, MakeStrippedOfNothingButWhiteSpace) {
  expectLinear(" \t", [](std::string text) { makeStripped(text, 0); });
}

TEST(LinearTimeTest, HexAndBack) {
  expectLinear("ab", [](const std::string& text) { return hex(text.data(), text.size(), ':', true).size(); });
  expectLinear("ab:", [](const std::string& text) { return from_hex(text).size(); });
  expectLinear("a b : ", [](const std::string& text) { return from_hex(text).size(); });
}

}  // namespace
}  // namespace kes::helper
