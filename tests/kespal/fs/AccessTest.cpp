#include "kespal/fs/Access.h"

#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <sstream>
#include <stdexcept>

#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

constexpr unsigned modeCount = 07777 + 1;

std::string printed(const Access& access) {
  std::ostringstream stream;
  stream << access;
  return stream.str();
}

unsigned short modeAfter(unsigned mode, const std::string& text) {
  Access access(static_cast<unsigned short>(mode));
  access.setMode(text);
  return access.mode();
}

TEST(AccessTest, AnUnsetAccessHasNoOwnerNoGroupAndNoBits) {
  const Access access;
  EXPECT_EQ(access.owner(), 0xFFFFFFFF);
  EXPECT_EQ(access.group(), 0xFFFFFFFF);
  EXPECT_EQ(access.mode(), 0);
  EXPECT_EQ(Access(0640).mode(), 0640);
  EXPECT_EQ(Access(0640).owner(), 0xFFFFFFFF);
}

TEST(AccessTest, OnlyTheTwelveLowBitsOfAModeAreTaken) {
  EXPECT_EQ(Access(0107644).mode(), 07644);
  EXPECT_EQ(Access(1, 2, 0170777).mode(), 0777);
}

// --- printing

TEST(AccessTest, PrintingShowsOwnerGroupAndNineLetters) {
  EXPECT_EQ(printed(Access(0, 80, 0750)), "0:80 rwxr-x---");
  EXPECT_EQ(printed(Access(1000, 4294967294U, 0)), "1000:4294967294 ---------");
}

TEST(AccessTest, AnUnsetOwnerOrGroupPrintsAsADash) {
  EXPECT_EQ(printed(Access(0644)), "-:- rw-r--r--");
  EXPECT_EQ(printed(Access(7, 0xFFFFFFFF, 0777)), "7:- rwxrwxrwx");
  EXPECT_EQ(printed(Access(0xFFFFFFFF, 7, 0111)), "-:7 --x--x--x");
}

TEST(AccessTest, SetIdAndStickyBitsAreNotPrinted) { EXPECT_EQ(printed(Access(07000)), "-:- ---------"); }

TEST(AccessTest, PrintingIgnoresTheStreamsNumberFormat) {
  std::ostringstream stream;
  stream << std::hex << std::showbase << Access(10, 255, 0400);
  EXPECT_EQ(stream.str(), "10:255 r--------");
}

// --- the safety rule

TEST(AccessTest, TheSafetyRuleHoldsForEveryModeOwnerAndGroup) {
  for (unsigned mode = 0; mode < modeCount; ++mode) {
    const Access access(5, 6, static_cast<unsigned short>(mode));
    const bool othersWrite = (mode & 0002) != 0, othersRead = (mode & 0004) != 0;
    EXPECT_EQ(access.isSafe(false, 5, 6), !othersWrite && !othersRead) << std::oct << mode;
    EXPECT_EQ(access.isSafe(true, 5, 6), !othersWrite) << std::oct << mode;
    for (const bool allow : {false, true}) {
      EXPECT_FALSE(access.isSafe(allow, 4, 6));
      EXPECT_FALSE(access.isSafe(allow, 5, 7));
      EXPECT_FALSE(access.isSafe(allow, 6, 5));
    }
  }
}

TEST(AccessTest, AFileThatOthersMayReadIsSafeOnlyIfThatIsAllowed) {
  EXPECT_FALSE(Access(1, 2, 0644).isSafe(false, 1, 2));
  EXPECT_TRUE(Access(1, 2, 0644).isSafe(true, 1, 2));
}

TEST(AccessTest, AFileThatOthersMayWriteIsNeverSafe) {
  EXPECT_FALSE(Access(1, 2, 0666).isSafe(false, 1, 2));
  EXPECT_FALSE(Access(1, 2, 0666).isSafe(true, 1, 2));
}

TEST(AccessTest, AFileThatTheGroupMayWriteCountsAsSafe) {
  EXPECT_TRUE(Access(1, 2, 0660).isSafe(false, 1, 2));
}

TEST(AccessTest, AnotherGroupIsNotSafeEvenWithTheRightOwner) {
  EXPECT_FALSE(Access(1, 3, 0600).isSafe(true, 1, 2));
}

// --- symbolic modes

TEST(AccessTest, PlusMinusAndEqualsWorkOnTheNamedClasses) {
  EXPECT_EQ(modeAfter(0000, "u+r"), 0400);
  EXPECT_EQ(modeAfter(0777, "go-w"), 0755);
  EXPECT_EQ(modeAfter(0777, "g=r"), 0747);
  EXPECT_EQ(modeAfter(0000, "a=rw"), 0666);
  EXPECT_EQ(modeAfter(0000, "u=rwx,g=rx,o="), 0750);
  EXPECT_EQ(modeAfter(0000, "u+rw-r"), 0200);
}

TEST(AccessTest, WithoutAClassAllAreMeantWhateverTheCreationMaskIs) {
  const mode_t before = ::umask(077);
  EXPECT_EQ(modeAfter(0644, "+x"), 0755);
  EXPECT_EQ(modeAfter(0777, "-w"), 0555);
  EXPECT_EQ(modeAfter(07123, "=r"), 0444);
  EXPECT_EQ(modeAfter(07123, "="), 0);
  EXPECT_EQ(modeAfter(0000, "u+w,+r"), 0644);
  EXPECT_EQ(modeAfter(0000, "+rw-w"), 0444);
  ::umask(before);
}

TEST(AccessTest, AnOctalTextIsTheWholeMode) {
  EXPECT_EQ(modeAfter(07777, "0"), 0);
  EXPECT_EQ(modeAfter(0, "755"), 0755);
  EXPECT_EQ(modeAfter(0, "0000004711"), 04711);
  EXPECT_EQ(modeAfter(0, "7777"), 07777);
}

TEST(AccessTest, EqualsTakesTheSetIdOrStickyBitOfItsClassAway) {
  EXPECT_EQ(modeAfter(07777, "u=rwx"), 03777);
  EXPECT_EQ(modeAfter(07777, "g=rwx"), 05777);
  EXPECT_EQ(modeAfter(07777, "o=rwx"), 06777);
  EXPECT_EQ(modeAfter(07777, "a=rwx"), 00777);
  EXPECT_EQ(modeAfter(07777, "a-rwx"), 07000);
}

struct BadText {
  const char* text;
  const char* complaint;
};

class BadModeTest : public testing::TestWithParam<BadText> {};

TEST_P(BadModeTest, IsRefusedWithWhatAndWhereAndTheModeStays) {
  Access access(1, 2, 04751);
  try {
    access.setMode(GetParam().text);
    ADD_FAILURE() << "taken: " << GetParam().text;
  } catch (const std::invalid_argument& error) {
    EXPECT_EQ(error.what(), std::string("bad mode \"") + GetParam().text + "\": " + GetParam().complaint);
  }
  EXPECT_EQ(access.mode(), 04751);
  EXPECT_EQ(access.owner(), 1U);
  EXPECT_EQ(access.group(), 2U);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, BadModeTest,
    testing::Values(
        BadText{"", "expected u, g, o, a, +, - or = instead of the end at position 1"},
        BadText{"=755", "unexpected '7' at position 2"},
        BadText{"r", "expected u, g, o, a, +, - or = instead of 'r' at position 1"},
        BadText{"-1", "unexpected '1' at position 2"}, BadText{"+s", "unexpected 's' at position 2"},
        BadText{" u+r", "expected u, g, o, a, +, - or = instead of ' ' at position 1"},
        BadText{"8", "expected u, g, o, a, +, - or = instead of '8' at position 1"},
        BadText{",u+r", "expected u, g, o, a, +, - or = instead of ',' at position 1"},
        BadText{"u", "expected +, - or = instead of the end at position 2"},
        BadText{"ur", "expected +, - or = instead of 'r' at position 2"},
        BadText{"u,g+r", "expected +, - or = instead of ',' at position 2"},
        BadText{"u+s", "unexpected 's' at position 3"}, BadText{"o+t", "unexpected 't' at position 3"},
        BadText{"a+X", "unexpected 'X' at position 3"}, BadText{"g=u", "unexpected 'u' at position 3"},
        BadText{"u+R", "unexpected 'R' at position 3"}, BadText{"u+r w", "unexpected ' ' at position 4"},
        BadText{"u+7", "unexpected '7' at position 3"},
        BadText{"u+r,", "expected u, g, o, a, +, - or = instead of the end at position 5"},
        BadText{"u+r,,g+r", "expected u, g, o, a, +, - or = instead of ',' at position 5"},
        BadText{"u+r,w", "expected u, g, o, a, +, - or = instead of 'w' at position 5"},
        BadText{"10000", "octal number above 7777 with '0' at position 5"},
        BadText{"77777777777777777777", "octal number above 7777 with '7' at position 5"},
        BadText{"758", "unexpected '8' at position 3"}, BadText{"0x1ff", "unexpected 'x' at position 2"},
        BadText{"755,u+r", "unexpected ',' at position 4"},
        BadText{"755\n", "unexpected byte 10 at position 4"},
        BadText{"u+\xC3\xA4", "unexpected byte 195 at position 3"}));

TEST(AccessTest, AZeroByteInAModeTextIsRefused) {
  Access access(0644);
  EXPECT_THROW(access.setMode(std::string("u+r\0", 4)), std::invalid_argument);
  EXPECT_EQ(access.mode(), 0644);
}

/// One file for each mode; chmod(1) and ls(1) are asked about all of them at once.
class AllModesTest : public testing::Test {
 protected:
  AllModesTest() {
    for (unsigned mode = 0; mode < modeCount; ++mode) test::writeFile(fileOf(mode), "");
  }

  std::string fileOf(unsigned mode) const {
    std::ostringstream name;
    name << std::oct << 010000 + mode;  // names of equal length sort as numbers do
    return dir_ / name.str();
  }
  void setAll() const {
    for (unsigned mode = 0; mode < modeCount; ++mode) {
      if (::chmod(fileOf(mode).c_str(), mode) != 0) throw std::runtime_error("chmod");
    }
  }
  unsigned modeOf(unsigned file) const {
    struct stat status;
    if (::stat(fileOf(file).c_str(), &status) != 0) throw std::runtime_error("stat");
    return status.st_mode & 07777;
  }
  /// Runs a command in the directory of the files; what it wrote.
  test::ChildResult run(const std::string& command) const {
    return test::inChild(
        [&] { return ::chdir(dir_.path().c_str()) == 0 ? WEXITSTATUS(std::system(command.c_str())) : 1; });
  }

  test::TempDir dir_{test::inMemory()};
};

TEST_F(AllModesTest, EveryModePrintsAsLsShowsIt) {
  setAll();
  std::istringstream lines(run("ls -ln").out);
  std::string line;
  std::getline(lines, line);  // the total
  for (unsigned mode = 0; mode < modeCount; ++mode) {
    std::string letters, links, owner, group;
    std::getline(lines, line);
    std::istringstream(line) >> letters >> links >> owner >> group;
    letters = letters.substr(1, 9);
    for (char& c : letters) c = c == 's' || c == 't' ? 'x' : c == 'S' || c == 'T' ? '-' : c;
    const Access access(::geteuid(), ::getegid(), static_cast<unsigned short>(mode));
    ASSERT_EQ(printed(access), owner + ':' + group + ' ' + letters) << line;
  }
}

TEST_F(AllModesTest, EveryTextDoesToEveryModeWhatChmodDoes) {
  for (const char* text :
       {"u+r",         "g-w",     "o=x",       "a+rwx",  "a-rwx",         "a=",      "u=",
        "g=",          "o=",      "u+",        "u-",     "ugo=rw",        "go+rx-w", "u=rwx,g=rx,o=",
        "u-x,u+x",     "uu+rr",   "a=r,u+w",   "ga=x",   "u=r+w-r",       "o-r=w+x", "go=,a+r",
        "u+rwx-rwx=r", "0",       "7",         "644",    "0755",          "1777",    "00004711",
        "7777",        "u+x+w+r", "g==r",      "o+-=rw", "ou=wx,g+x,a-r", "+x",      "-w",
        "=",           "=rw",     "+r-w=x,u+w"}) {
    setAll();
    const auto chmod = run(std::string("umask 0; chmod -- '") + text + "' 1*");
    ASSERT_EQ(chmod.exitCode(), 0) << text << ": " << chmod.err;
    for (unsigned mode = 0; mode < modeCount; ++mode) {
      ASSERT_EQ(modeAfter(mode, text), modeOf(mode)) << text << " on " << std::oct << mode;
    }
  }
}

/// The texts that setMode() takes, said in another way.
bool isInTheGrammar(const std::string& text) {
  static const regex_t grammar = [] {
    const std::string clause = "[ugoa]*([-+=][rwx]*)+";
    regex_t compiled;
    const std::string all = '^' + clause + "(," + clause + ")*$|^0*[0-7]{1,4}$";
    if (::regcomp(&compiled, all.c_str(), REG_EXTENDED | REG_NOSUB) != 0) throw std::logic_error("regcomp");
    return compiled;
  }();
  return ::regexec(&grammar, text.c_str(), 0, nullptr, 0) == 0;
}

TEST(AccessTest, RandomTextsAreTakenOrRefusedByTheGrammarAndDoWhatChmodDoes) {
  test::TempDir dir;
  std::mt19937 random(20177);
  std::ostringstream script;
  script << "umask 0\n";
  std::vector<std::pair<unsigned, std::string>> taken;
  for (int round = 0; round < 40000; ++round) {
    const std::string_view alphabet = round % 8 == 0 ? "0123456789" : "ugoa++--==rrwwxx,,sXt";
    std::string text;
    for (std::size_t left = 1 + random() % 9; left > 0; --left) text += alphabet[random() % alphabet.size()];
    const unsigned mode = random() % modeCount;
    if (!isInTheGrammar(text)) {
      ASSERT_THROW(modeAfter(mode, text), std::invalid_argument) << text;
    } else if (modeAfter(mode, text); taken.size() < 400) {
      const std::string file = dir / std::to_string(taken.size());
      test::writeFile(file, "");
      ASSERT_EQ(::chmod(file.c_str(), mode), 0);
      script << "chmod -- '" << text << "' " << file << " || exit\n";
      taken.emplace_back(mode, text);
    }
  }
  ASSERT_EQ(taken.size(), 400U);
  ASSERT_EQ(test::inChild([&] { return std::system(script.str().c_str()); }).exitCode(), 0);
  for (std::size_t at = 0; at < taken.size(); ++at) {
    struct stat status;
    ASSERT_EQ(::stat((dir / std::to_string(at)).c_str(), &status), 0);
    EXPECT_EQ(modeAfter(taken[at].first, taken[at].second), status.st_mode & 07777)
        << taken[at].second << " on " << std::oct << taken[at].first;
  }
}

}  // namespace
}  // namespace kes::fs
