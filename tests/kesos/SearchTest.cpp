#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <set>

#include "kesos/Ipc.h"
#include "kesos/files.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;
using testing::ElementsAre;
using testing::IsEmpty;

using Names = std::set<std::string>;

/// All that a search finds.
Names found(const std::string& pattern) {
  KesOsFind find{};
  std::array<char, KESOS_PATH_SIZE> name{};
  Names names;
  int more = KesOsFindFirst(&find, pattern.c_str(), name.data(), nullptr, nullptr, nullptr);
  for (; more == 1; more = KesOsFindNext(&find, name.data(), nullptr, nullptr, nullptr)) {
    EXPECT_TRUE(names.insert(name.data()).second) << "found twice: " << name.data();
  }
  EXPECT_EQ(KesOsFindClose(&find), 1);
  return names;
}

class SearchTest : public testing::Test {
 protected:
  void touch(const std::string& names) { shell("cd " + dir_.path() + " && touch " + names); }
  Names find(const std::string& pattern) { return found(dir_ / pattern); }

  TempDir dir_;
};

TEST_F(SearchTest, ADirectoryListsItsEntriesWithoutDotAndDotDot) {
  touch("a .b c.txt");
  ASSERT_EQ(::mkdir((dir_ / "d").c_str(), 0700), 0);
  EXPECT_THAT(found(dir_.path()), ElementsAre(".b", "a", "c.txt", "d"));
  EXPECT_THAT(found(dir_.path() + '/'), ElementsAre(".b", "a", "c.txt", "d"));
  for (const char* all : {"*", "*.*", "*."}) EXPECT_THAT(find(all), ElementsAre(".b", "a", "c.txt", "d"));
}

TEST_F(SearchTest, AnEmptyDirectoryHasNoFirstMatchAndTheSearchIsClosed) {
  KesOsFind search{};
  std::array<char, KESOS_PATH_SIZE> name{};
  EXPECT_EQ(KesOsFindFirst(&search, dir_.path().c_str(), name.data(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(search.dir, nullptr);
  EXPECT_EQ(KesOsFindNext(&search, name.data(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KesOsFindClose(&search), 1);
}

TEST_F(SearchTest, AStarStandsForAnyTextBetweenTwoParts) {
  touch("log1.txt log.txt log.tx lo.txt xlog.txt log.txt.old logx");
  EXPECT_THAT(find("log*.txt"), ElementsAre("log.txt", "log1.txt"));
  EXPECT_THAT(find("log*"), ElementsAre("log.tx", "log.txt", "log.txt.old", "log1.txt", "logx"));
  EXPECT_THAT(find("*.txt"), ElementsAre("lo.txt", "log.txt", "log1.txt", "xlog.txt"));
  EXPECT_THAT(find("log.t*t.old"), ElementsAre("log.txt.old"));
  EXPECT_THAT(find("nothing*"), IsEmpty());
}

TEST_F(SearchTest, TheTwoPartsOfAPatternDoNotOverlap) {
  touch("aba ababa ab");
  EXPECT_THAT(find("ab*ba"), ElementsAre("ababa")) << "aba is shorter than both parts";
}

TEST_F(SearchTest, APatternWithoutAStarIsAnExactName) {
  touch("name name2");
  EXPECT_THAT(find("name"), ElementsAre("name"));
  EXPECT_THAT(find("nam"), IsEmpty());
}

TEST_F(SearchTest, WithTwoStarsTheSecondIsAStarInTheName) {
  touch("'a*b' axb");
  EXPECT_THAT(find("a**b"), ElementsAre("a*b"));
}

TEST_F(SearchTest, APatternWithoutADirectorySearchesTheCurrentOne) {
  touch("one.c two.c three.h");
  const ChildResult result = inChild([this] {
    if (::chdir(dir_.path().c_str()) != 0) return 1;
    return found("*.c") == Names{"one.c", "two.c"} && found("three.h") == Names{"three.h"} ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(SearchTest, TheRootDirectoryIsSearchedAsAnyOther) {
  EXPECT_EQ(found("/et*"), (Names{"etc"}));
  EXPECT_TRUE(found("/").contains("etc"));
  EXPECT_TRUE(found("/*").contains("etc"));
}

TEST_F(SearchTest, TypeTimeAndSizeAreThoseOfWhatALinkLeadsTo) {
  writeFile(dir_ / "file", "twelve bytes");
  shell("cd " + dir_.path() +
        " && mkdir sub && touch -d @1200000000 file && ln -s file tofile && ln -s sub tosub");
  const auto facts = [this](const char* name) {
    KesOsFind search{};
    std::array<char, KESOS_PATH_SIZE> entry{};
    unsigned int type = 0;
    time_t time = 0;
    off_t size = 0;
    EXPECT_EQ(KesOsFindFirst(&search, (dir_ / (std::string(name) + '*')).c_str(), entry.data(), &type, &time,
                             &size),
              1);
    EXPECT_STREQ(entry.data(), name);
    KesOsFindClose(&search);
    return std::tuple(type, type == KESOS_TYPE_FILE ? time : 0, type == KESOS_TYPE_FILE ? size : 0);
  };
  EXPECT_EQ(facts("file"), std::tuple(1U, 1200000000, 12));
  EXPECT_EQ(facts("tofile"), std::tuple(1U, 1200000000, 12));
  EXPECT_EQ(facts("sub"), std::tuple(2U, 0, 0));
  EXPECT_EQ(facts("tosub"), std::tuple(2U, 0, 0));
}

TEST_F(SearchTest, ALinkToNothingEndsASearch) {
  ASSERT_EQ(::symlink("nowhere", (dir_ / "link").c_str()), 0);
  EXPECT_THAT(find("link*"), IsEmpty());
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SearchTest, WhatIsNotThereGivesZeroWithTheReason) {
  KesOsFind search{};
  std::array<char, KESOS_PATH_SIZE> name{};
  const auto first = [&](const std::string& pattern) {
    return KesOsFindFirst(&search, pattern.c_str(), name.data(), nullptr, nullptr, nullptr);
  };
  EXPECT_EQ(first(dir_ / "missing"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(first(dir_ / "missing/*"), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(first(""), 0);
  EXPECT_EQ(first(dir_ / std::string(1024, 'x') + "*"), 0);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(SearchTest, NullPointersGiveZero) {
  KesOsFind search{};
  std::array<char, KESOS_PATH_SIZE> name{};
  EXPECT_EQ(KesOsFindFirst(nullptr, "*", name.data(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KesOsFindFirst(&search, nullptr, name.data(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KesOsFindFirst(&search, "*", nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(search.dir, nullptr);
  EXPECT_EQ(KesOsFindNext(nullptr, name.data(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KesOsFindNext(&search, name.data(), nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(KesOsFindClose(nullptr), 0);
  EXPECT_EQ(KesOsFindClose(&search), 1);
  vSplitFileName(nullptr, name.data(), name.data());
  vSplitFileName("a", nullptr, nullptr);
}

TEST_F(SearchTest, WithoutADescriptorThereIsNoSearch) {
  touch("a");
  const ChildResult result = inChild([this] {
    const DescriptorLimit limit(3);
    KesOsFind search{};
    std::array<char, KESOS_PATH_SIZE> name{};
    return KesOsFindFirst(&search, dir_.path().c_str(), name.data(), nullptr, nullptr, nullptr) == 0 &&
                   errno == EMFILE
               ? 0
               : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(SearchTest, AnOpenSearchIsNotInheritedByPrograms) {
  touch("a");
  KesOsFind search{};
  std::array<char, KESOS_PATH_SIZE> name{};
  ASSERT_EQ(KesOsFindFirst(&search, dir_.path().c_str(), name.data(), nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(shell("ls -l /proc/self/fd | grep -c " + dir_.path() + " || true"), "0");
  KesOsFindClose(&search);
}

TEST_F(SearchTest, ASearchFindsWhatFindFinds) {
  std::mt19937 random(977);
  std::string names;
  for (int index = 0; index < 300; ++index) {
    for (auto length = 1 + random() % 6; length > 0; --length) names += "ab."[random() % 3];
    names += index % 3 == 0 ? "b " : "a ";
  }
  touch(names);
  for (const std::string pattern : {"a*", "*b", "a*a", "ab*.b", ".*a", "b*.*", "abba*"}) {
    if (std::count(pattern.begin(), pattern.end(), '*') > 1) continue;
    std::istringstream lines(
        shell("cd " + dir_.path() + " && find . -mindepth 1 -name '" + pattern + "' | sed s,^./,,"));
    Names expected;
    for (std::string line; std::getline(lines, line);) expected.insert(line);
    EXPECT_EQ(find(pattern), expected) << pattern;
  }
}

TEST_F(SearchTest, APatternThatBeginsWithADotMatchesDotAndDotDotToo) {
  touch(".x y");
  EXPECT_THAT(find(".*"), ElementsAre(".", "..", ".x"));
}

std::pair<std::string, std::string> split(const std::string& path) {
  std::array<char, KESOS_PATH_SIZE> dir{}, file{};
  vSplitFileName(path.c_str(), dir.data(), file.data());
  return {dir.data(), file.data()};
}

TEST(SplitTest, APathIsSplitAtItsLastSlash) {
  using Parts = std::pair<std::string, std::string>;
  EXPECT_EQ(split("/a/b/c"), (Parts{"/a/b", "c"}));
  EXPECT_EQ(split("a/b"), (Parts{"a", "b"}));
  EXPECT_EQ(split("/x"), (Parts{"", "x"}));
  EXPECT_EQ(split("x"), (Parts{"./", "x"}));
  EXPECT_EQ(split("a/"), (Parts{"a", "*"}));
  EXPECT_EQ(split("/"), (Parts{"", "*"}));
  EXPECT_EQ(split(""), (Parts{"./", "*"}));
  EXPECT_EQ(split("a//b"), (Parts{"a/", "b"}));
}

TEST(SplitTest, APartThatDoesNotFitIsNotShortened) {
  const std::string longest(1023, 'x');
  EXPECT_EQ(split(longest).second, longest);
  EXPECT_EQ(split(longest + "/y").first, longest);
  for (const std::string& path : {longest + 'x', longest + "x/y", "y/x" + longest}) {
    EXPECT_EQ(split(path), (std::pair<std::string, std::string>{"", ""}));
    EXPECT_EQ(errno, ENAMETOOLONG);
  }
}

}  // namespace
