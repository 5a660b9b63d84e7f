#include <glob.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "kespal/fs/FewDescriptors.h"
#include "kespal/fs/Ops.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Call;
using test::inChild;
using test::once;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

namespace stdfs = std::filesystem;

/// A program's file with permission bits, below two directories named by PATH.
class WhichTest : public ::testing::Test {
 protected:
  WhichTest() {
    stdfs::create_directories(one_);
    stdfs::create_directories(two_);
  }
  ~WhichTest() override { ::setenv("PATH", path_.c_str(), 1); }

  static std::string program(const std::string& path, mode_t mode, uid_t owner = ::geteuid(),
                             gid_t group = ::getegid()) {
    test::writeFile(path, "");
    EXPECT_EQ(::chown(path.c_str(), owner, group), 0);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
  }
  static std::string found(const std::string& path, const std::string& name, bool dirOnly = false) {
    ::setenv("PATH", path.c_str(), 1);
    return Ops::which(name.c_str(), dirOnly);
  }

  const TempDir folder_;
  const std::string path_ = ::getenv("PATH");
  const std::string one_ = folder_ / "one", two_ = folder_ / "two";
};

TEST_F(WhichTest, TheFirstDirectoryThatHasTheProgramWins) {
  program(two_ + "/prog", 0755);
  EXPECT_EQ(found(one_ + ':' + two_, "prog"), two_ + "/prog");
  program(one_ + "/prog", 0755);
  EXPECT_EQ(found(one_ + ':' + two_, "prog"), one_ + "/prog");
  EXPECT_EQ(found(two_ + ':' + one_, "prog"), two_ + "/prog");
  EXPECT_EQ(found(two_ + ':' + one_, "prog", true), two_);
}

TEST_F(WhichTest, WithoutPathNothingIsFound) {
  ::unsetenv("PATH");
  EXPECT_EQ(Ops::which("ls", false), "");
  EXPECT_EQ(Ops::which("ls", true), "");
}

TEST_F(WhichTest, EmptyElementsAreSkipped) {
  EXPECT_EQ(found(":/bin", "ls"), "/bin/ls");
  program(one_ + "/prog", 0755);
  EXPECT_EQ(found("::" + one_ + "::", "prog"), one_ + "/prog");
  const auto child = inChild([&] {
    Ops::setCWD(one_.c_str());
    for (const char* path : {"", ":", "::", "."}) std::cout << found(path, "prog") << ';';
    return 0;
  });
  EXPECT_EQ(child.out, ";;;./prog;") << "the current directory only where it is named";
}

TEST_F(WhichTest, ADirectoryIsGivenBackAsItStandsInPath) {
  program(one_ + "/prog", 0755);
  EXPECT_EQ(found(one_ + '/', "prog"), one_ + "//prog");
  EXPECT_EQ(found(one_ + '/', "prog", true), one_ + '/');
}

TEST_F(WhichTest, AnAbsoluteNameIsOnlyTested) {
  const std::string path = program(one_ + "/prog", 0755);
  EXPECT_EQ(found("/absent", path), path);
  EXPECT_EQ(found("/absent", path, true), one_);
  EXPECT_EQ(found(one_, one_ + "/absent"), "");
  EXPECT_EQ(found(one_, one_ + "/absent", true), "");
  ::unsetenv("PATH");
  EXPECT_EQ(Ops::which(path.c_str(), false), path);
}

TEST_F(WhichTest, ARelativeNameWithSlashesIsSoughtBelowEveryDirectory) {
  program(one_ + "/prog", 0755);
  EXPECT_EQ(found(folder_.path(), "one/prog"), one_ + "/prog");
  EXPECT_EQ(found(one_, "./prog"), one_ + "/./prog");
}

TEST_F(WhichTest, OnlyARegularFileIsAProgram) {
  stdfs::create_directory(one_ + "/dir");
  stdfs::create_symlink("absent", one_ + "/dangling");
  stdfs::create_symlink("loop", one_ + "/loop");
  stdfs::create_symlink("real", one_ + "/link");
  program(one_ + "/real", 0755);
  for (const char* name : {"dir", "dangling", "loop", "absent", "real/x", "", ".", ".."})
    EXPECT_EQ(found(one_, name), "") << name;
  EXPECT_EQ(found(one_, "link"), one_ + "/link") << "links are followed";
}

TEST_F(WhichTest, WhatCannotBeLookedAtIsNoProgram) {
  const std::string file = program(folder_ / "file", 0755);
  program(two_ + "/prog", 0755);
  EXPECT_EQ(found(file + ':' + std::string(5000, 'x') + ':' + two_, "prog"), two_ + "/prog");
  for (const int errnum : {EACCES, EIO, ELOOP}) {
    const Refuse failing(Call::stat, errnum, once);
    EXPECT_EQ(found(two_ + ':' + two_ + "/.", "prog"), two_ + "/./prog");
  }
}

TEST_F(WhichTest, ANullProgramIsNotFound) {
  ::setenv("PATH", "/bin", 1);
  EXPECT_EQ(Ops::which(nullptr, false), "");
}

TEST_F(WhichTest, EachCandidateCostsOneLook) {
  program(two_ + "/prog", 0755);
  const test::CallTrace trace;
  EXPECT_EQ(found(one_ + ":/absent:" + two_ + ":/never", "prog"), two_ + "/prog");
  auto calls = trace.calls();
  std::erase(calls, "getenv");  // which is no look
  EXPECT_THAT(calls, ElementsAre("stat", "stat", "stat"));
}

/// The permission rule, as a table over mode, owner and group.
TEST_F(WhichTest, TheRightToExecuteFollowsTheSimpleRule) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root makes files of other owners";
  struct Row {
    mode_t mode;
    bool ownUser, ownGroup, executable;
  };
  const Row table[] = {
      {0001, false, false, true}, {0100, false, false, false}, {0100, true, false, true},
      {0010, false, true, true},  {0010, true, false, false},  {0010, false, false, false},
      {0100, false, true, false}, {0001, true, true, true},    {0666, true, true, false},
      {0677, true, true, true},   {0000, true, true, false},   {0111, false, false, true},
  };
  const passwd* nobody = ::getpwnam("nobody");
  ASSERT_NE(nobody, nullptr);
  int number = 0;
  for (const Row& row : table) {
    const std::string name = "prog" + std::to_string(number++);
    const uid_t owner = row.ownUser ? nobody->pw_uid : 4711;
    const gid_t group = row.ownGroup ? nobody->pw_gid : 4711;
    program(one_ + '/' + name, row.mode, owner, group);
    const auto child = asNobody([&] {
      std::cout << found(one_, name);
      return 0;
    });
    EXPECT_EQ(child.out, row.executable ? one_ + '/' + name : "")
        << std::oct << row.mode << ' ' << row.ownUser << row.ownGroup;
  }
}

TEST_F(WhichTest, RootHasNoSpecialRight) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root makes files of other owners";
  program(one_ + "/prog", 0110, 4711, 4711);
  EXPECT_EQ(found(one_, "prog"), "");
}

TEST_F(WhichTest, SupplementaryGroupsDoNotCount) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root chooses its groups";
  program(one_ + "/prog", 0010, 4711, 4712);
  const auto child = inChild([&] {
    const gid_t group = 4712;
    if (::setgroups(1, &group) != 0) return 1;
    std::cout << found(one_, "prog");
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.out, "");
}

// --- patterns

class GlobTest : public ::testing::Test {
 protected:
  GlobTest() {
    for (const char* name : {"a.txt", "b.txt", "c.log", ".hidden", "brace{x}", "star*"})
      test::writeFile(folder_ / name, "");
    stdfs::create_directories(folder_ / "sub/deep");
    test::writeFile(folder_ / "sub/d.txt", "");
  }

  /// What the C library itself answers to the same flags.
  static std::list<std::string> libraryAnswer(const std::string& pattern) {
    glob_t list{};
    std::list<std::string> result;
    if (::glob(pattern.c_str(), GLOB_TILDE | GLOB_BRACE | GLOB_NOSORT, nullptr, &list) == 0) {
      result.assign(list.gl_pathv, list.gl_pathv + list.gl_pathc);
    }
    ::globfree(&list);
    return result;
  }

  const TempDir folder_;
};

TEST_F(GlobTest, TheAnswerIsTheCLibrarysOwnInItsOrder) {
  for (const char* pattern :
       {"*", "*.txt", "?.txt", "[ab].txt", "[!a].txt", "{a,c}.*", "{b,a}.txt", ".*", "*/*", "sub/*.txt",
        "{sub,.}/*", "a.txt", "brace\\{x\\}", "star\\*", "*/", "*/deep"}) {
    EXPECT_EQ(Ops::glob(folder_ / pattern), libraryAnswer(folder_ / pattern)) << pattern;
    EXPECT_FALSE(Ops::glob(folder_ / pattern).empty()) << pattern;
  }
}

TEST_F(GlobTest, BracesAreExpandedInTheirOrder) {
  EXPECT_THAT(Ops::glob(folder_ / "{c.log,a.txt,b.txt}"),
              ElementsAre(folder_ / "c.log", folder_ / "a.txt", folder_ / "b.txt"));
  EXPECT_THAT(Ops::glob(folder_ / "*.{txt,log}"),
              UnorderedElementsAre(folder_ / "a.txt", folder_ / "b.txt", folder_ / "c.log"));
}

TEST_F(GlobTest, APatternWithoutMatchesGivesAnEmptyList) {
  EXPECT_THAT(Ops::glob(folder_ / "*.none"), IsEmpty());
  EXPECT_THAT(Ops::glob("/absent/*"), IsEmpty());
  EXPECT_THAT(Ops::glob(""), IsEmpty());
}

TEST_F(GlobTest, TheTildeIsTheHomeDirectory) {
  const auto child = inChild([&] {
    ::setenv("HOME", folder_.path().c_str(), 1);
    for (const auto& match : Ops::glob("~/*.log")) std::cout << match << '\n';
    for (const auto& match : Ops::glob("~")) std::cout << match << '\n';
    return 0;
  });
  EXPECT_EQ(child.out, (folder_ / "c.log") + '\n' + folder_.path() + '\n');
}

TEST_F(GlobTest, WithoutHomeTheTildeIsWhatTheUserDatabaseSays) {
  const std::string home = ::getpwuid(::getuid())->pw_dir;
  if (!stdfs::is_directory(home)) GTEST_SKIP() << "this user has no home";
  for (const bool empty : {false, true}) {
    const auto child = inChild([&] {
      empty ? ::setenv("HOME", "", 1) : ::unsetenv("HOME");
      for (const auto& match : Ops::glob("~")) std::cout << match << '\n';
      for (const auto& match : Ops::glob("~/.")) std::cout << match << '\n';
      return 0;
    });
    EXPECT_EQ(child.out, home + '\n' + home + "/.\n") << child.err;
  }
}

TEST_F(GlobTest, AnotherUsersTildeIsThatUsersHome) {
  const passwd* root = ::getpwnam("root");
  ASSERT_NE(root, nullptr);
  EXPECT_THAT(Ops::glob("~root"), ElementsAre(root->pw_dir));
}

TEST_F(GlobTest, EveryFailureButNoMatchIsARuntimeError) {
  for (const int result : {GLOB_NOSPACE, GLOB_ABORTED, GLOB_NOSYS}) {
    const Refuse failing(Call::glob, result);
    EXPECT_EQ(raisedBy([] { Ops::glob("*"); }), (Raised{"kes::RuntimeError", 0, "read error or out of memory",
                                                        "src/os/posix/fs/OpsSearch", "glob"}));
  }
  const Refuse failing(Call::glob, GLOB_NOMATCH);
  EXPECT_THAT(Ops::glob("/*"), IsEmpty());
}

TEST_F(GlobTest, ADirectoryThatCannotBeReadHasNoMatches) {
  ASSERT_EQ(::chmod((folder_ / "sub").c_str(), 0), 0);
  const auto child = asNobody([&] {
    std::cout << Ops::glob(folder_ / "sub/*").size();
    return 0;
  });
  EXPECT_EQ(child.out, "0") << child.err;
}

TEST_F(GlobTest, WithoutDescriptorsNoListIsGivenThatLacksMatches) {
  KES_SKIP_UNDER_SANITIZERS("opens descriptors to look at the type of an object");
  const auto child = inChild([&] {
    const test::FewDescriptors none(0);
    const Raised raised = raisedBy([&] { Ops::glob(folder_ / "*.log"); });
    const Raised inBraces = raisedBy([&] { Ops::glob(folder_ / "{a.txt,*.log}"); });
    std::cout << raised.type << ' ' << raised.text << ", " << inBraces.type;
    return 0;
  });
  EXPECT_EQ(child.out, "kes::RuntimeError read error or out of memory, kes::RuntimeError") << child.err;
}

}  // namespace
}  // namespace kes::fs
