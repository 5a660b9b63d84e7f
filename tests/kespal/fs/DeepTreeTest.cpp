#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <utility>

#include "kespal/fs/FewDescriptors.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/UnknownTypes.h"
#include "support/Calls.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

// Trees that are deeper than a recursion, the descriptors or a path would reach.

namespace kes::fs {
namespace {

using test::FewDescriptors;
using test::openDescriptors;
using test::Raised;
using test::raisedBy;

namespace stdfs = std::filesystem;

constexpr const char* opsSite = "src/os/posix/fs/Ops";
constexpr const char* treeSite = "src/os/posix/fs/OpsTree";
constexpr const char* infoSite = "src/os/posix/fs/Info";
constexpr const char* dirSite = "src/os/posix/fs/Dir";

class DeepTreeTest : public ::testing::Test {
 protected:
  ~DeepTreeTest() override {
    if (last_ != -1) closeLast();
    EXPECT_EQ(openDescriptors(), descriptors_) << "a descriptor was left behind";
    Ops::tryMakedirs(at("tree").c_str());
    EXPECT_EQ(removing(), Raised{}) << "the rest";
  }

  std::string at(const std::string& name) const { return folder_ / name; }
  bool isThere(const std::string& name) const { return stdfs::exists(stdfs::symlink_status(at(name))); }
  Raised removing() const {
    return raisedBy([&] { Ops::removeTree(at("tree").c_str()); });
  }

  /// Makes a directory in each directory, so many levels below the tree, with a file before it and one
  /// behind it. The last one stays open.
  void dig(int levels, const char* name = "d") {
    if (last_ == -1) {
      stdfs::create_directory(at("tree"));
      last_ = ::open(at("tree").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    }
    for (; levels > 0; --levels) {
      file("1");
      ASSERT_EQ(::mkdirat(last_, name, 0700), 0);
      file("2");
      const int next = ::openat(last_, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      ::close(std::exchange(last_, next));
    }
  }
  /// Makes a link in the last directory.
  void link(const char* name, const std::string& target) {
    ASSERT_EQ(::symlinkat(target.c_str(), last_, name), 0);
  }
  void file(const char* name) const { ::close(::openat(last_, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0600)); }
  void closeLast() { ::close(std::exchange(last_, -1)); }

  /// The path of so many levels "d".
  std::string deep(int levels) const {
    std::string path = at("tree");
    for (; levels > 0; --levels) path += "/d";
    return path;
  }

  const test::TempDir folder_{test::inMemory()};
  int last_ = -1;
  const std::vector<std::string> descriptors_ = openDescriptors();
};

/// Runs a function on a thread with a small stack.
void onSmallStack(std::size_t size, const std::function<void()>& body) {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ASSERT_EQ(::pthread_attr_setstacksize(&attributes, size), 0);
  pthread_t thread;
  const auto run = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, &attributes, run, const_cast<std::function<void()>*>(&body)), 0);
  ::pthread_join(thread, nullptr);
  ::pthread_attr_destroy(&attributes);
}

TEST_F(DeepTreeTest, ManyThousandLevelsAreRemovedOnASmallStackWithoutLeavingTheWorkingDirectory) {
  dig(20000);
  closeLast();
  const stdfs::path before = stdfs::current_path();
  Raised raised;
  raised.type = "not run";
  onSmallStack(std::size_t{256} * 1024, [&] { raised = removing(); });
  EXPECT_EQ(raised, Raised{});
  EXPECT_FALSE(isThere("tree"));
  EXPECT_EQ(stdfs::current_path(), before);
}

TEST_F(DeepTreeTest, AsAWalkGoesDownOtherThreadsFindDescriptors) {
  static std::size_t most = 0;
  test::writeFile(at("file"), "");
  dig(100);
  link("link", at("file"));
  closeLast();
  const test::Before atTheBottom(test::Call::stat, [] { most = openDescriptors().size(); });
  EXPECT_EQ(removing(), Raised{});
  EXPECT_GT(most, descriptors_.size());
  EXPECT_LE(most, descriptors_.size() + 8);
}

TEST_F(DeepTreeTest, OneDescriptorIsEnoughForAPathThatTheSystemTakes) {
  dig(1000);
  closeLast();
  {
    const FewDescriptors few(1);
    EXPECT_EQ(removing(), Raised{});
  }
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(DeepTreeTest, TwoDescriptorsAreEnoughForAnyTree) {
  dig(3000);
  closeLast();
  {
    const FewDescriptors few(2);
    EXPECT_EQ(removing(), Raised{});
  }
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(DeepTreeTest, WithTooFewDescriptorsTheDirectoryThatCannotBeOpenedIsNamed) {
  KES_SKIP_UNDER_SANITIZERS("opens descriptors to look at the type of an object");
  dig(3000);
  closeLast();
  Raised raised;
  {
    const FewDescriptors few(1);
    raised = removing();
  }
  EXPECT_EQ(raised.type, "kes::FsError");
  EXPECT_EQ(raised.errnum, EMFILE);
  EXPECT_EQ(raised.file, dirSite);
  EXPECT_EQ(raised.text, deep(3000).substr(0, raised.text.size()));
  EXPECT_GE(raised.text.size(), std::size_t{PATH_MAX});
  {
    const FewDescriptors none(0);
    EXPECT_EQ(removing(), (Raised{"kes::FsError", EMFILE, at("tree"), dirSite, "open"}));
  }
}

TEST_F(DeepTreeTest, AnErrorNamesAPathThatIsLongerThanTheSystemTakes) {
  dig(3000);
  link("dangling", "nowhere");
  EXPECT_EQ(removing(), (Raised{"kes::NoSuchFileError", ENOENT, deep(3000) + "/dangling", infoSite, "get"}));
  ASSERT_EQ(::unlinkat(last_, "dangling", 0), 0);
  dig(1);
  {
    const test::Refuse failing(test::Call::unlinkat, EPERM, {.option = 0});
    const Raised raised = removing();
    EXPECT_EQ(raised, (Raised{"kes::FileAccessError", EPERM,
                              deep(3000) + raised.text.substr(deep(3000).size()), opsSite, "removeFile"}));
  }
  const test::Refuse failing(test::Call::unlinkat, EBUSY, {.option = AT_REMOVEDIR});
  EXPECT_EQ(removing(), (Raised{"kes::FsError", EBUSY, deep(3001), opsSite, "removeDir"}));
}

TEST_F(DeepTreeTest, ALinkIsFollowedWhereNoPathReachesAndThenCannotBeRemoved) {
  stdfs::create_directories(at("outside/below"));
  test::writeFile(at("outside/below/file"), "");
  test::writeFile(at("file"), "");
  dig(3000);
  link("link", at("outside"));
  EXPECT_EQ(removing(), (Raised{"kes::FsError", ENOTDIR, deep(3000) + "/link", opsSite, "removeDir"}));
  EXPECT_TRUE(stdfs::is_empty(at("outside")));
  ASSERT_EQ(::unlinkat(last_, "link", 0), 0);
  link("link", at("file"));
  EXPECT_EQ(removing(), Raised{});
  EXPECT_TRUE(isThere("file"));
}

TEST_F(DeepTreeTest, ALoopOfLinksEndsWhereNoPathReaches) {
  dig(3000);
  link("loop", ".");
  const Raised raised = removing();
  EXPECT_EQ(raised, (Raised{"kes::FsError", ELOOP, raised.text, treeSite, "removeTree"}));
  EXPECT_THAT(raised.text, ::testing::EndsWith("/loop/loop/loop"));
  ASSERT_EQ(::unlinkat(last_, "loop", 0), 0);
}

TEST_F(DeepTreeTest, LinksToFilesAreNoLoopHoweverMany) {
  test::writeFile(at("file"), "");
  dig(3000);
  for (int number = 0; number < 50; ++number) link(std::to_string(number).c_str(), at("file"));
  EXPECT_EQ(removing(), Raised{});
}

TEST_F(DeepTreeTest, EntriesOfUnknownTypeAreRemovedWhereNoPathReaches) {
  dig(3000);
  const test::UnknownTypes unknown;
  EXPECT_EQ(removing(), Raised{});
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(DeepTreeTest, ADirectoryPutInThePlaceOfOneOfTheWalkIsLeftAlone) {
  dig(20);
  closeLast();
  // When the walk is at the bottom, the part that it is in is moved away, and where it came from there is
  // another directory with the same names.
  const auto swap = [](const std::string& top) {
    stdfs::rename(top + "/tree/d/d/d", top + "/moved");
    stdfs::rename(top + "/tree/d/d", top + "/former");
    stdfs::create_directories(top + "/tree/d/d");
    for (const char* name : {"1", "2"}) test::writeFile(top + "/tree/d/d/" + name, "precious");
  };
  bool isSwapped = false;
  const test::Instead<test::Call::unlinkat> bottom([&](int folder, const char* name, int flags) {
    if ((flags & AT_REMOVEDIR) != 0 && !std::exchange(isSwapped, true)) swap(folder_.path());
    return test::real<test::Call::unlinkat>(folder, name, flags);
  });
  EXPECT_EQ(removing(), (Raised{"kes::FsError", ESTALE, at("tree/d/d"), treeSite, "removeTree"}));
  for (const char* name : {"1", "2"})
    EXPECT_EQ(test::readFile(at(std::string("tree/d/d/") + name)), "precious");
}

TEST_F(DeepTreeTest, ADirectoryWithoutAWayUpIsFoundByItsNamesWhereNoPathReaches) {
  dig(60, std::string(200, 'n').c_str());
  closeLast();
  int refused = 0;
  {
    const test::Instead<test::Call::openat> climbing(
        [&](int folder, const char* name, int flags, void* mode) {
          if (std::string_view(name) != "..")
            return test::real<test::Call::openat>(folder, name, flags, mode);
          ++refused;
          errno = EACCES;
          return -1;
        });
    EXPECT_EQ(removing(), Raised{});
  }
  EXPECT_GT(refused, 0);
  EXPECT_FALSE(isThere("tree"));
}

TEST_F(DeepTreeTest, WantOfMemoryEndsTheWalkAndLeavesNothingOpen) {
  dig(30);
  closeLast();
  const std::string tree = at("tree");
  EXPECT_GT(test::starve([&] {
              if (isThere("tree")) Ops::removeTree(tree.c_str());
            }),
            1U);
  EXPECT_FALSE(isThere("tree"));
}

}  // namespace
}  // namespace kes::fs
