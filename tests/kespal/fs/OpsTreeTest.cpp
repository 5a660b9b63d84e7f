#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "kespal/error/FsError.h"
#include "kespal/fs/Access.h"
#include "kespal/fs/CancelledWithin.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/UnknownTypes.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

namespace kes::fs {
namespace {

using test::asNobody;
using test::Call;
using test::nth;
using test::once;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;
using test::Refuse;
using test::TempDir;
using ::testing::Contains;
using ::testing::Not;

namespace stdfs = std::filesystem;

constexpr const char* opsSite = "src/os/posix/fs/Ops";
constexpr const char* treeSite = "src/os/posix/fs/OpsTree";
constexpr const char* infoSite = "src/os/posix/fs/Info";
constexpr const char* dirSite = "src/os/posix/fs/Dir";

class OpsTreeTest : public ::testing::Test {
 protected:
  ~OpsTreeTest() override { EXPECT_EQ(openDescriptors(), descriptors_) << "a descriptor was left behind"; }

  std::string at(const std::string& name) const { return folder_ / name; }
  void file(const std::string& name) const { test::writeFile(at(name), "content"); }
  void directory(const std::string& name) const { stdfs::create_directories(at(name)); }
  void link(const std::string& name, const std::string& target) const {
    stdfs::create_symlink(target, at(name));
  }
  bool isThere(const std::string& name) const { return stdfs::exists(stdfs::symlink_status(at(name))); }
  /// The paths of all entries of a directory, in its order.
  std::vector<std::string> entriesOf(const std::string& name) const {
    std::vector<std::string> paths;
    for (const auto& entry : stdfs::directory_iterator(at(name))) paths.push_back(entry.path());
    return paths;
  }
  Raised removing(const std::string& name) const {
    return raisedBy([&] { Ops::removeTree(at(name).c_str()); });
  }

  const std::vector<std::string> descriptors_ = openDescriptors();
  const TempDir folder_;
};

// --- removing a tree

TEST_F(OpsTreeTest, AWholeTreeIsRemoved) {
  directory("tree/a/b/c");
  directory("tree/empty");
  for (const char* name :
       {"tree/1", "tree/a/2", "tree/a/b/3", "tree/a/b/c/4", "tree/.hidden", "tree/a/..dots"})
    file(name);
  Ops::makeFifo(at("tree/fifo"), Access(0600));
  // To a file that stays: in which order entries are removed is the file system's affair.
  file("outside");
  link("tree/a/link", "../../outside");
  EXPECT_EQ(removing("tree"), Raised{});
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(OpsTreeTest, ALinkToAFileIsRemovedWithoutItsTarget) {
  directory("tree");
  file("outside");
  link("tree/link", "../outside");
  EXPECT_EQ(removing("tree"), Raised{});
  EXPECT_TRUE(isThere("outside"));
}

TEST_F(OpsTreeTest, ALinkToADirectoryIsFollowedAndThenCannotBeRemoved) {
  directory("tree");
  directory("outside/deeper");
  file("outside/file");
  file("outside/deeper/file");
  link("tree/link", "../outside");
  EXPECT_EQ(removing("tree"), (Raised{"kes::FsError", ENOTDIR, at("tree/link"), opsSite, "removeDir"}));
  EXPECT_TRUE(isThere("outside"));
  EXPECT_TRUE(stdfs::is_empty(at("outside")));
  EXPECT_TRUE(isThere("tree/link"));
}

TEST_F(OpsTreeTest, ALinkToTheTreeItselfEndsInALoop) {
  directory("tree");
  link("tree/loop", ".");
  const Raised raised = removing("tree");
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, ELOOP);
  EXPECT_EQ(raised.function, "get");
  EXPECT_TRUE(isThere("tree/loop"));
}

TEST_F(OpsTreeTest, ADanglingLinkIsANoSuchFileError) {
  directory("tree");
  link("tree/dangling", "absent");
  EXPECT_EQ(removing("tree"), (Raised{"kes::NoSuchFileError", ENOENT, at("tree/dangling"), infoSite, "get"}));
  EXPECT_TRUE(isThere("tree/dangling"));
}

TEST_F(OpsTreeTest, ALinkToADirectoryAsTheTreeIsEmptiedAndStays) {
  directory("real");
  file("real/file");
  link("tree", "real");
  EXPECT_EQ(removing("tree"), (Raised{"kes::FsError", ENOTDIR, at("tree"), opsSite, "removeDir"}));
  EXPECT_TRUE(stdfs::is_empty(at("real")));
}

TEST_F(OpsTreeTest, WhatIsNoDirectoryCannotBeOpened) {
  file("file");
  EXPECT_EQ(removing("file"), (Raised{"kes::FsError", ENOTDIR, at("file"), dirSite, "open"}));
  EXPECT_EQ(removing("absent"), (Raised{"kes::NoSuchFileError", ENOENT, at("absent"), dirSite, "open"}));
  EXPECT_EQ(raisedBy([] { Ops::removeTree(nullptr); }),
            (Raised{"kes::FsError", EFAULT, "", treeSite, "removeTree"}));
  EXPECT_TRUE(isThere("file"));
}

TEST_F(OpsTreeTest, EntriesGoInDirectoryOrderUntilTheFirstErrorAndWhatIsGoneIsGone) {
  directory("tree");
  for (int i = 0; i < 5; ++i) file("tree/" + std::to_string(i));
  const std::vector<std::string> order = entriesOf("tree");
  {
    const Refuse failing(Call::unlinkat, EPERM, {.skip = 2, .option = 0});
    EXPECT_EQ(removing("tree"), (Raised{"kes::FileAccessError", EPERM, order[2], opsSite, "removeFile"}));
  }
  EXPECT_EQ(entriesOf("tree"), std::vector<std::string>(order.begin() + 2, order.end()));
}

TEST_F(OpsTreeTest, ADirectoryIsRemovedWithAllItHoldsBeforeTheNextEntryIsTouched) {
  for (int i = 0; i < 5; ++i) {
    directory("tree/" + std::to_string(i));
    file("tree/" + std::to_string(i) + "/file");
  }
  const std::vector<std::string> order = entriesOf("tree");
  {
    const Refuse failing(Call::unlinkat, EBUSY, {.skip = 2, .option = AT_REMOVEDIR});
    EXPECT_EQ(removing("tree"), (Raised{"kes::FsError", EBUSY, order[2], opsSite, "removeDir"}));
  }
  EXPECT_EQ(entriesOf("tree"), std::vector<std::string>(order.begin() + 2, order.end()));
  EXPECT_TRUE(stdfs::is_empty(order[2]));
  for (const std::size_t later : {3U, 4U}) EXPECT_TRUE(stdfs::exists(order[later] + "/file"));
}

TEST_F(OpsTreeTest, AnEntrysPathIsThePathAsItWasGivenASlashAndTheName) {
  directory("tree");
  link("tree/dangling", "absent");
  EXPECT_EQ(removing("tree/"),
            (Raised{"kes::NoSuchFileError", ENOENT, at("tree//dangling"), infoSite, "get"}));
}

TEST_F(OpsTreeTest, ARefusedRemovalByTypeIsRepeatedAfterALook) {
  directory("tree");
  file("tree/file");
  const Refuse failing(Call::unlinkat, EPERM, once);
  EXPECT_EQ(removing("tree"), Raised{});
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(OpsTreeTest, AnEntryThatBecameADirectoryIsRemovedAsOne) {
  directory("tree");
  file("tree/entry");
  const test::Before before(Call::unlinkat, [path = at("tree/entry")] {
    stdfs::remove(path);
    stdfs::create_directories(path + "/below");
  });
  EXPECT_EQ(removing("tree"), Raised{});
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(OpsTreeTest, ADirectoryThatBecameAFileIsRemovedAsOne) {
  directory("tree/entry");
  const Refuse failing(Call::openat, ENOTDIR, nth(2));
  const auto becomeFile = [](const std::string& path) {
    stdfs::remove(path);
    test::writeFile(path, "");
  };
  const test::Before before(Call::stat, [&] { becomeFile(at("tree/entry")); });
  EXPECT_EQ(removing("tree"), Raised{});
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(OpsTreeTest, ADirectoryThatVanishedIsANoSuchFileErrorOfTheLook) {
  directory("tree/entry");
  const Refuse failing(Call::openat, ENOENT, nth(2));
  const test::Before before(Call::stat, [path = at("tree/entry")] { stdfs::remove(path); });
  EXPECT_EQ(removing("tree"), (Raised{"kes::NoSuchFileError", ENOENT, at("tree/entry"), infoSite, "get"}));
}

TEST_F(OpsTreeTest, AnEntryThatVanishedIsANoSuchFileErrorOfTheLook) {
  directory("tree");
  file("tree/file");
  const test::Before before(Call::unlinkat, [path = at("tree/file")] { stdfs::remove(path); });
  EXPECT_EQ(removing("tree"), (Raised{"kes::NoSuchFileError", ENOENT, at("tree/file"), infoSite, "get"}));
}

TEST_F(OpsTreeTest, AReadErrorIsAnOsError) {
  directory("tree");
  const Refuse failing(Call::readdir, EIO);
  EXPECT_EQ(removing("tree"), (Raised{"kes::OsError", EIO, "", dirSite, "nextEntry"}));
  EXPECT_TRUE(isThere("tree"));
}

TEST_F(OpsTreeTest, ADirectoryThatCannotBeRemovedIsNamed) {
  directory("tree/below");
  const Refuse failing(Call::unlinkat, EBUSY, {.option = AT_REMOVEDIR});
  EXPECT_EQ(removing("tree"), (Raised{"kes::FsError", EBUSY, at("tree/below"), opsSite, "removeDir"}));
}

TEST_F(OpsTreeTest, NobodyIsRefusedWithTheErrorsOfAWalkByPaths) {
  directory("tree/closed");
  file("tree/closed/file");
  ASSERT_EQ(::chmod(at("tree").c_str(), 0755), 0);
  ASSERT_EQ(::chmod(at("tree/closed").c_str(), 0), 0);
  const auto unreadable = asNobody([&] {
    std::cout << removing("tree");
    return 0;
  });
  EXPECT_EQ(unreadable.out, "kes::FsError 13 \"" + at("tree/closed") + "\" at " + dirSite + " (open)");
  // Readable, but not searchable: the look at the entry fails before any removal is tried.
  ASSERT_EQ(::chmod(at("tree/closed").c_str(), 0444), 0);
  const auto unsearchable = asNobody([&] {
    std::cout << removing("tree");
    return 0;
  });
  EXPECT_EQ(unsearchable.out, "kes::FsError 13 \"" + at("tree/closed/file") + "\" at " + infoSite + " (get)");
  ASSERT_EQ(::chmod(at("tree/closed").c_str(), 0555), 0);
  const auto unwritable = asNobody([&] {
    std::cout << removing("tree");
    return 0;
  });
  EXPECT_EQ(unwritable.out,
            "kes::FileAccessError 13 \"" + at("tree/closed/file") + "\" at " + opsSite + " (removeFile)");
}

TEST_F(OpsTreeTest, ADirectoryBelowAnUnsearchableOneIsTheLooksErrorToo) {
  directory("tree/below");
  ASSERT_EQ(::chmod(at("tree").c_str(), 0444), 0);
  const auto child = asNobody([&] {
    std::cout << removing("tree");
    return 0;
  });
  EXPECT_EQ(child.out, "kes::FsError 13 \"" + at("tree/below") + "\" at " + infoSite + " (get)");
}

TEST_F(OpsTreeTest, WithoutASingleDescriptorTheOpeningFails) {
  directory("tree");
  const Refuse failing(Call::openat, EMFILE);
  EXPECT_EQ(removing("tree"), (Raised{"kes::FsError", EMFILE, at("tree"), dirSite, "open"}));
}

TEST_F(OpsTreeTest, AnEntryOfUnknownTypeIsLookedAt) {
  directory("tree/below");
  file("tree/below/file");
  file("outside");
  link("tree/link", "../outside");
  const test::UnknownTypes unknown;
  const test::CallTrace trace;
  EXPECT_EQ(removing("tree"), Raised{});
  const auto calls = trace.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "stat"), 3);
  EXPECT_FALSE(isThere("tree"));
  EXPECT_TRUE(isThere("outside"));
}

TEST_F(OpsTreeTest, WhereNothingCanBeRemovedTheFirstEntryIsNamed) {
  const Raised raised = raisedBy([] { Ops::removeTree("/proc/self/fdinfo"); });
  const int errnum = ::geteuid() == 0 ? EPERM : EACCES;
  EXPECT_EQ(raised, (Raised{"kes::FileAccessError", errnum, raised.text, opsSite, "removeFile"}));
  EXPECT_THAT(raised.text, ::testing::StartsWith("/proc/self/fdinfo/"));
}

TEST_F(OpsTreeTest, ManyEntriesAreAllRemoved) {
  directory("tree");
  for (int i = 0; i < 5000; ++i) file("tree/entry-with-a-longer-name-" + std::to_string(i));
  EXPECT_EQ(removing("tree"), Raised{});
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(OpsTreeTest, AFileCostsOneCallAndADirectoryItsOwn) {
  directory("tree/below");
  file("tree/file");
  file("tree/below/1");
  file("tree/below/2");
  const test::CallTrace trace;
  Ops::removeTree(at("tree").c_str());
  const auto calls = trace.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "unlinkat"), 3 + 2);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "openat"), 2);
  for (const char* call : {"stat", "fstat", "fstatat"}) EXPECT_THAT(calls, Not(Contains(call)));
}

TEST_F(OpsTreeTest, ALinkCostsALook) {
  directory("tree");
  file("file");
  link("tree/link", "../file");
  const test::CallTrace trace;
  Ops::removeTree(at("tree").c_str());
  const auto calls = trace.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "stat"), 1);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "unlinkat"), 1 + 1);
}

TEST_F(OpsTreeTest, ACancellationWhileADirectoryIsOpenedLosesNoDescriptor) {
  KES_SKIP_UNDER_SANITIZERS("loses its way in the stack of a cancelled thread");
  const auto before = openDescriptors();
  int number = 0;
  do {
    directory("tree/deep/deeper");
  } while (test::cancelledWithin(Call::openat, ++number, [this] { Ops::removeTree(at("tree").c_str()); }));
  EXPECT_GT(number, 3);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(OpsTreeTest, TheBacktraceOfAFailedOpenBeginsInTheWalk) {
  Exception::m_gen_backtraces = true;
  const sys::AtEnd off([] { Exception::m_gen_backtraces = false; });
  try {
    Ops::removeTree(at("none").c_str());
    ADD_FAILURE() << "removed";
  } catch (const NoSuchFileError& error) {
    // The walk's own functions have no names in a backtrace.
    for (auto frame = error.backtrace().rbegin(); frame->find("removeTree") == frame->npos; ++frame) {
      EXPECT_EQ(frame->find("kes::"), frame->npos) << *frame;
    }
  }
}

}  // namespace
}  // namespace kes::fs
