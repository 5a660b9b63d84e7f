#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "kespal/error/FsError.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/Ops.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

namespace kes::fs {
namespace {

using test::Call;
using test::inChild;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::ElementsAre;

namespace stdfs = std::filesystem;

constexpr const char* opsSite = "src/os/posix/fs/Ops";
constexpr const char* treeSite = "src/os/posix/fs/OpsTree";

class MakedirsTest : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return folder_ / name; }
  void file(const std::string& name) const { test::writeFile(at(name), "content"); }
  void directory(const std::string& name) const { stdfs::create_directories(at(name)); }
  void link(const std::string& name, const std::string& target) const {
    stdfs::create_symlink(target, at(name));
  }
  bool isThere(const std::string& name) const { return stdfs::exists(stdfs::symlink_status(at(name))); }
  Raised making(const std::string& name, const Access* access = nullptr) const {
    return raisedBy([&] { Ops::makedirs(at(name).c_str(), access); });
  }

  const TempDir folder_;
};

TEST_F(MakedirsTest, EveryMissingLevelIsCreatedFromTheTop) {
  const test::CallTrace trace;
  EXPECT_EQ(making("a/b/c"), Raised{});
  EXPECT_THAT(trace.calls(), ElementsAre("mkdir", "mkdir", "mkdir", "mkdir", "mkdir"));
  EXPECT_TRUE(stdfs::is_directory(at("a/b/c")));
}

TEST_F(MakedirsTest, EachNumberOfMissingLevelsWorks) {
  const std::string whole = "1/2/3/4";
  for (std::size_t existing = 0; existing < whole.size(); existing += 2) {
    stdfs::remove_all(at("1"));
    if (existing != 0) directory(whole.substr(0, existing - 1));
    EXPECT_EQ(making(whole), Raised{}) << existing;
    EXPECT_TRUE(stdfs::is_directory(at(whole)));
  }
}

TEST_F(MakedirsTest, AnExistingDirectoryIsAFileExistsError) {
  directory("a/b");
  EXPECT_EQ(making("a/b"), (Raised{"kes::FileExistsError", EEXIST, at("a/b"), opsSite, "mkdir"}));
  EXPECT_EQ(raisedBy([] { Ops::makedirs("/"); }),
            (Raised{"kes::FileExistsError", EEXIST, "/", opsSite, "mkdir"}));
}

TEST_F(MakedirsTest, TryingIsFalseOnlyForAnExistingDirectory) {
  directory("dir");
  file("file");
  link("link", "dir");
  link("dangling", "absent");
  EXPECT_TRUE(Ops::tryMakedirs(at("new/below").c_str()));
  EXPECT_FALSE(Ops::tryMakedirs(at("new/below").c_str()));
  EXPECT_FALSE(Ops::tryMakedirs(at("dir").c_str()));
  EXPECT_FALSE(Ops::tryMakedirs(at("link").c_str())) << "links are followed";
  for (const char* name : {"file", "dangling"}) {
    EXPECT_EQ(raisedBy([&] { Ops::tryMakedirs(at(name).c_str()); }),
              (Raised{"kes::FileExistsError", EEXIST, at(name), opsSite, "mkdir"}));
  }
  EXPECT_EQ(raisedBy([&] { Ops::tryMakedirs(at("file/below").c_str()); }),
            (Raised{"kes::FsError", ENOTDIR, at("file/below"), opsSite, "mkdir"}));
}

TEST_F(MakedirsTest, SlashesAtTheEndAndInARowDoNotMatter) {
  EXPECT_EQ(making("a/b/"), Raised{});
  EXPECT_EQ(making("c//d///e////"), Raised{});
  EXPECT_TRUE(stdfs::is_directory(at("a/b")));
  EXPECT_TRUE(stdfs::is_directory(at("c/d/e")));
}

TEST_F(MakedirsTest, DotsAreOrdinaryLevels) {
  EXPECT_EQ(making("a/./b"), (Raised{"kes::FileExistsError", EEXIST, at("a/."), opsSite, "mkdir"}));
  EXPECT_TRUE(isThere("a")) << "what was created stays";
}

TEST_F(MakedirsTest, AFileOnTheWayIsAnFsErrorOfTheWholePath) {
  file("file");
  EXPECT_EQ(making("file/a"), (Raised{"kes::FsError", ENOTDIR, at("file/a"), opsSite, "mkdir"}));
  EXPECT_EQ(making("file/a/b"), (Raised{"kes::FsError", ENOTDIR, at("file/a/b"), opsSite, "mkdir"}));
}

TEST_F(MakedirsTest, WithoutALevelLeftTheErrorIsAPlainFsErrorWithTheWholePath) {
  EXPECT_EQ(raisedBy([] { Ops::makedirs(""); }), (Raised{"kes::FsError", ENOENT, "", treeSite, "makedirs"}));
  EXPECT_EQ(raisedBy([] { Ops::makedirs(nullptr); }),
            (Raised{"kes::FsError", ENOENT, "", treeSite, "makedirs"}));
  const Refuse failing(Call::mkdir, ENOENT);
  EXPECT_EQ(raisedBy([] { Ops::makedirs("a/b/c"); }),
            (Raised{"kes::FsError", ENOENT, "a/b/c", treeSite, "makedirs"}));
  EXPECT_EQ(raisedBy([] { Ops::makedirs("/a/b"); }),
            (Raised{"kes::FsError", ENOENT, "/a/b", treeSite, "makedirs"}));
}

TEST_F(MakedirsTest, ARemovedWorkingDirectoryLeavesNoLevel) {
  directory("gone");
  const auto child = inChild([&] {
    Ops::setCWD(at("gone").c_str());
    Ops::removeDir(at("gone").c_str());
    std::cout << raisedBy([] { Ops::makedirs("a/b"); });
    return 0;
  });
  EXPECT_EQ(child.out, std::string("kes::FsError 2 \"a/b\" at ") + treeSite + " (makedirs)");
}

TEST_F(MakedirsTest, EveryLevelGetsTheSameRights) {
  const mode_t before = ::umask(0);
  const Access given(0751);
  EXPECT_EQ(making("a/b/c", &given), Raised{});
  EXPECT_EQ(making("plain/below"), Raised{});
  ::umask(before);
  for (const char* name : {"a", "a/b", "a/b/c"})
    EXPECT_EQ(stdfs::status(at(name)).permissions(), stdfs::perms(0751));
  for (const char* name : {"plain", "plain/below"})
    EXPECT_EQ(stdfs::status(at(name)).permissions(), stdfs::perms(0700));
}

TEST_F(MakedirsTest, AFailureOnTheWayDownLeavesWhatWasMade) {
  const Refuse failing(Call::mkdir, ENOSPC, {.skip = 4});
  EXPECT_EQ(making("a/b/c"), (Raised{"kes::FsError", ENOSPC, at("a/b/c"), opsSite, "mkdir"}));
  EXPECT_TRUE(isThere("a/b"));
  EXPECT_FALSE(isThere("a/b/c"));
}

TEST_F(MakedirsTest, ALevelThatAnotherMakesMeanwhileIsAFileExistsError) {
  // The third try creates "a"; before the fourth, on the way down, somebody else makes "a/b".
  const auto creator = [](const std::string& path) {
    if (stdfs::exists(stdfs::path(path).parent_path())) stdfs::create_directories(path);
  };
  directory("a");
  const test::Before before(Call::mkdir, [&] { creator(at("a/b")); });
  EXPECT_EQ(making("a/b"), (Raised{"kes::FileExistsError", EEXIST, at("a/b"), opsSite, "mkdir"}));
  EXPECT_FALSE(Ops::tryMakedirs(at("a/b").c_str()));
}

TEST_F(MakedirsTest, RacingCreatorsEndWithTheDirectoryThere) {
  for (int round = 0; round < 20; ++round) {
    const std::string name = "race" + std::to_string(round) + "/a/b/c";
    const auto create = [&] {
      // A loser may lose half way, at a level that another one made: then it tries again.
      for (;;) {
        try {
          Ops::tryMakedirs(at(name).c_str());
          return 0;
        } catch (const FileExistsError&) {
        }
      }
    };
    std::vector<pid_t> creators;
    for (int i = 0; i < 4; ++i) {
      const pid_t pid = ::fork();
      if (pid == 0) ::_exit(create());
      creators.push_back(pid);
    }
    for (const pid_t pid : creators) {
      int status = -1;
      ::waitpid(pid, &status, 0);
      EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(stdfs::is_directory(at(name)));
  }
}

TEST_F(MakedirsTest, TheBacktraceOfMakedirsOwnErrorBeginsInIt) {
  Exception::m_gen_backtraces = true;
  const sys::AtEnd off([] { Exception::m_gen_backtraces = false; });
  try {
    Ops::makedirs("");
    ADD_FAILURE() << "made";
  } catch (const FsError& error) {
    ASSERT_FALSE(error.backtrace().empty());
    EXPECT_NE(error.backtrace().back().find("makedirs"), std::string::npos) << error.backtrace().back();
  }
}

}  // namespace
}  // namespace kes::fs
