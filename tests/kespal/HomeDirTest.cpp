// The home directory where the environment says nothing of it.
#include <cerrno>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <optional>
#include <string>
#include <utility>

#include "kespal/fs/StandardPaths.h"
#include "support/FakeAccounts.h"
#include "support/ForkedChild.h"

namespace kes::fs {
namespace {

/// Where user data goes when the environment names neither that directory nor, maybe, a home.
std::string userDataDir(const char* home, std::deque<int> codes,
                        std::optional<test::Accounts::Password> entry) {
  return test::inChild([&] {
           const test::FakeAccounts fake;
           test::accounts().passwordCodes = std::move(codes);
           test::accounts().password = entry;
           ::unsetenv("XDG_DATA_HOME");
           home != nullptr ? ::setenv("HOME", home, 1) : ::unsetenv("HOME");
           std::cout << StandardPaths::userDataDir();
           return 0;
         })
      .out;
}

constexpr test::Accounts::Password someone{
    .name = "someone", .uid = 1, .gid = 1, .home = "/of/someone", .shell = "/bin/sh"};

TEST(HomeDirTest, TheUserDatabaseIsAskedWhenTheEnvironmentNamesNoHomeOrARelativeOne) {
  EXPECT_EQ(userDataDir(nullptr, {}, someone), "/of/someone/.local/share");
  EXPECT_EQ(userDataDir("relative", {}, someone), "/of/someone/.local/share");
  EXPECT_EQ(userDataDir("/own", {}, someone), "/own/.local/share");
}

TEST(HomeDirTest, AnEntryThatDoesNotFitIsReadAgainWithMoreRoom) {
  EXPECT_EQ(userDataDir(nullptr, {ERANGE, ERANGE}, someone), "/of/someone/.local/share");
}

TEST(HomeDirTest, AUserWithoutAnyHomeIsTakenToLiveInTheRootDirectory) {
  EXPECT_EQ(userDataDir(nullptr, {ENOENT}, std::nullopt), "/.local/share");
}

}  // namespace
}  // namespace kes::fs
