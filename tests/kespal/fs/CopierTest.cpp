#include "kespal/fs/Copier.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "kespal/fs/CopierFixture.h"
#include "support/Calls.h"
#include "support/FileStatus.h"
#include "support/ForkedChild.h"
#include "support/PrivateMount.h"

namespace kes::fs {
namespace {

using test::inChild;
using test::modeOf;
using test::Raised;
using test::raisedBy;
using ::testing::ElementsAre;

namespace stdfs = std::filesystem;

/// Bytes that differ at every place where pieces could be mixed up.
std::string bytes(std::size_t size) {
  std::string text(size, 0);
  std::uint32_t state = 1;
  for (char& c : text) c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
  return text;
}

// --- buffers

TEST_F(CopierTest, ABufferNeedsBothItsHalves) {
  char buffer[8];
  const Raised bad{"kes::UsageError", 0, "bad buffer passed to Copier instance", copierSite, "Copier"};
  EXPECT_EQ(raisedBy([&] { const Copier copier(buffer, 0); }), bad);
  EXPECT_EQ(raisedBy([&] { const Copier copier(nullptr, 8); }), bad);
  EXPECT_EQ(raisedBy([&] { const Copier copier(buffer, 8); }), Raised{});
  EXPECT_EQ(raisedBy([&] { const Copier copier(nullptr, 0); }), Raised{});
}

TEST_F(CopierTest, WithoutABufferThereIsNoPointerToIt) {
  const Copier copier;
  EXPECT_FALSE(copier.haveBuffer());
  EXPECT_EQ(
      raisedBy([&] { copier.getBufferPointer(); }),
      (Raised{"kes::UsageError", 0, "bad buffer passed to Copier instance", copierSite, "getBufferPointer"}));
}

TEST_F(CopierTest, TheCallersBufferComesFirst) {
  char buffer[8];
  Copier copier(buffer, sizeof buffer);
  EXPECT_TRUE(copier.haveBuffer());
  EXPECT_EQ(copier.getBufferPointer(), buffer);
  copier.allocateBuffer(100);
  EXPECT_EQ(copier.getBufferPointer(), buffer);
}

TEST_F(CopierTest, AnOwnBufferIsAllocatedOnce) {
  Copier copier;
  copier.allocateBuffer(3);
  ASSERT_TRUE(copier.haveBuffer());
  const char* const first = copier.getBufferPointer();
  copier.allocateBuffer(100);
  EXPECT_EQ(copier.getBufferPointer(), first);
  const test::CallTrace trace;
  copier.copy(from_.c_str(), to_.c_str());
  const auto calls = trace.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "read"), 4) << "three, three, one, none";
  EXPECT_EQ(test::readFile(to_), "content");
}

TEST_F(CopierTest, AnOwnBufferOfNoBytesIsRefused) {
  EXPECT_EQ(
      raisedBy([] { Copier().allocateBuffer(0); }),
      (Raised{"kes::UsageError", 0, "bad buffer passed to Copier instance", copierSite, "allocateBuffer"}));
}

TEST_F(CopierTest, EverySizeOfBufferCopiesEverySizeOfFile) {
  for (const std::size_t bufferSize : {1u, 2u, 7u, 1024u, 4096u}) {
    for (const std::size_t size : {0u, 1u, 6u, 7u, 8u, 1023u, 1024u, 1025u, 5000u}) {
      const std::string content = bytes(size);
      test::writeFile(from_, content);
      std::vector<char> buffer(bufferSize);
      Copier(buffer.data(), buffer.size(), Flags::OVERWRITE).copy(from_.c_str(), to_.c_str());
      EXPECT_EQ(test::readFile(to_), content) << bufferSize << ' ' << size;
    }
  }
}

TEST_F(CopierTest, ABufferOfOneByteReadsByteByByte) {
  char buffer = 0;
  const test::CallTrace trace;
  Copier(&buffer, 1).copy(from_.c_str(), to_.c_str());
  const auto calls = trace.calls();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "read"), 8);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "write"), 7);
  EXPECT_EQ(test::readFile(to_), "content");
}

TEST_F(CopierTest, TheOwnBufferHas1024Bytes) {
  test::writeFile(from_, std::string(2049, 'x'));
  const test::CallTrace trace;
  EXPECT_EQ(copying(), Raised{});
  EXPECT_THAT(trace.calls(), ElementsAre("open", "fstat", "open", "read", "write", "read", "write", "read",
                                         "write", "read", "close", "close"));
}

TEST_F(CopierTest, OneCopierCopiesManyFiles) {
  Copier copier(nullptr, 0, Flags::OVERWRITE);
  for (const char* content : {"one", "", "three and more"}) {
    test::writeFile(from_, content);
    copier.copy(from_.c_str(), to_.c_str());
    EXPECT_EQ(test::readFile(to_), content);
  }
}

// --- by name

TEST_F(CopierTest, AnEmptyFileBecomesAnEmptyFileWithItsPermissionBits) {
  test::writeFile(from_, "");
  EXPECT_EQ(copying(), Raised{});
  EXPECT_EQ(test::readFile(to_), "");
  EXPECT_EQ(modeOf(to_), 0640u);
}

TEST_F(CopierTest, WithoutOverwriteAnExistingTargetKeepsItsContent) {
  test::writeFile(to_, "old");
  EXPECT_EQ(copying(), (Raised{"kes::FsError", EEXIST, to_, fileSite, "open"}));
  EXPECT_EQ(test::readFile(to_), "old");
}

TEST_F(CopierTest, WithOverwriteAnExistingTargetIsRewritten) {
  test::writeFile(to_, "a longer old content");
  const mode_t before = modeOf(to_);
  EXPECT_EQ(copying(Flags::OVERWRITE), Raised{});
  EXPECT_EQ(test::readFile(to_), "content");
  EXPECT_EQ(modeOf(to_), before) << "its rights are its own unless they are copied, too";
  stdfs::remove(to_);
  EXPECT_EQ(copying(Flags::OVERWRITE), Raised{}) << "a missing one is created";
  EXPECT_EQ(modeOf(to_), 0640u);
}

TEST_F(CopierTest, ALinkAsSourceIsFollowedUnlessThatIsRefused) {
  const std::string link = folder_ / "link";
  stdfs::create_symlink("from", link);
  EXPECT_EQ(raisedBy([&] { Copier(nullptr, 0, Flags::NO_FOLLOW).copy(link.c_str(), to_.c_str()); }),
            (Raised{"kes::IsASymlinkError", ELOOP, link, fileSite, "open"}));
  EXPECT_FALSE(stdfs::exists(to_));
  Copier().copy(link.c_str(), to_.c_str());
  EXPECT_EQ(test::readFile(to_), "content");
}

TEST_F(CopierTest, ALinkAsTargetIsWrittenThroughOnlyWithOverwrite) {
  stdfs::create_symlink("real", to_);
  EXPECT_EQ(copying().errnum, EEXIST);
  EXPECT_EQ(copying(Flags::OVERWRITE), Raised{});
  EXPECT_TRUE(stdfs::is_symlink(to_));
  EXPECT_EQ(test::readFile(folder_ / "real"), "content");
}

TEST_F(CopierTest, AMissingSourceCreatesNoTarget) {
  stdfs::remove(from_);
  EXPECT_EQ(copying(), (Raised{"kes::NoSuchFileError", ENOENT, from_, fileSite, "open"}));
  EXPECT_FALSE(stdfs::exists(to_));
}

TEST_F(CopierTest, ADirectoryAsSourceIsTheReadError) {
  EXPECT_EQ(raisedBy([&] { Copier().copy(folder_.path().c_str(), to_.c_str()); }),
            (Raised{"kes::OsError", EISDIR, "", streamSite, "read"}));
}

TEST_F(CopierTest, ADirectoryAsSourceAndATargetThatIsThereIsTheErrorOfOpeningTheTarget) {
  test::writeFile(to_, "old");
  EXPECT_EQ(raisedBy([&] { Copier().copy(folder_.path().c_str(), to_.c_str()); }),
            (Raised{"kes::FsError", EEXIST, to_, fileSite, "open"}));
}

TEST_F(CopierTest, NullNamesCountAsEmptyOnes) {
  EXPECT_EQ(raisedBy([&] { Copier().copy(static_cast<const char*>(nullptr), to_.c_str()); }),
            (Raised{"kes::FsError", EFAULT, "", fileSite, "open"}));
  for (const auto& flags : {EnumBitset<Flags>(), EnumBitset<Flags>(Flags::OVERWRITE)}) {
    EXPECT_EQ(
        raisedBy([&] { Copier(nullptr, 0, flags).copy(from_.c_str(), static_cast<const char*>(nullptr)); }),
        (Raised{"kes::FsError", EFAULT, "", fileSite, "open"}));
  }
}

TEST_F(CopierTest, AFileIsNotCopiedOntoItself) {
  stdfs::create_hard_link(from_, folder_ / "same");
  for (const std::string& to : {from_, folder_ / "same"}) {
    EXPECT_EQ(raisedBy([&] { Copier(nullptr, 0, Flags::OVERWRITE).copy(from_.c_str(), to.c_str()); }),
              (Raised{"kes::FsError", EINVAL, to, copierSite, "openTarget"}));
  }
  StreamFile in, out;
  in.open(from_.c_str(), File::READ);
  out.open(from_.c_str(), File::READ_WRITE);
  EXPECT_EQ(raisedBy([&] { Copier().copy(in, out); }),
            (Raised{"kes::OsError", EINVAL, "", copierSite, "borrowTarget"}));
  EXPECT_EQ(raisedBy([&] { Copier().copy(out, out); }).errnum, EINVAL);
  EXPECT_EQ(test::readFile(from_), "content");
}

TEST_F(CopierTest, ADeviceMayBeBothSourceAndTarget) {
  EXPECT_EQ(raisedBy([] { Copier(nullptr, 0, Flags::OVERWRITE).copy("/dev/null", "/dev/null"); }), Raised{});
}

// --- contents

TEST_F(CopierTest, ShortWritesAreCompleted) {
  const std::string content = bytes(10000);
  test::writeFile(from_, content);
  const test::Shorten few(test::Call::write, 7);
  EXPECT_EQ(copying(), Raised{});
  EXPECT_EQ(test::readFile(to_), content);
}

TEST_F(CopierTest, ATargetThatTakesNothingIsAnError) {
  const test::Shorten none(test::Call::write, 0);
  EXPECT_EQ(copying(), (Raised{"kes::OsError", EIO, "", copierSite, "copyData"}));
}

TEST_F(CopierTest, ALargeSparseFileArrivesWhole) {
  const std::size_t hole = std::size_t{64} << 20;
  {
    StreamFile sparse;
    sparse.open(from_.c_str(), File::WRITE);
    sparse.truncate(hole);
    sparse.seek(hole / 2);
    sparse.write("middle", 6);
    sparse.seek(hole);
    sparse.write("end", 3);
  }
  std::vector<char> buffer(std::size_t{1} << 20);
  Copier(buffer.data(), buffer.size()).copy(from_.c_str(), to_.c_str());
  EXPECT_EQ(stdfs::file_size(to_), hole + 3);
  EXPECT_EQ(std::system(("cmp '" + from_ + "' '" + to_ + "'").c_str()), 0);
}

TEST_F(CopierTest, AFileBelowProcHasContentThoughItsSizeIsZero) {
  Copier().copy("/proc/self/cmdline", to_.c_str());
  EXPECT_EQ(test::readFile(to_), test::readFile("/proc/self/cmdline"));
}

TEST_F(CopierTest, ASourceThatGrowsMeanwhileIsCopiedToItsNewEnd) {
  const test::Before before(test::Call::write,
                            [path = from_] { std::ofstream(path, std::ios::app) << " and more"; });
  EXPECT_EQ(copying(), Raised{});
  EXPECT_EQ(test::readFile(to_), "content and more");
}

TEST_F(CopierTest, ASourceThatShrinksMeanwhileEndsWhereItEnds) {
  test::writeFile(from_, std::string(5000, 'x'));
  const test::Before before(test::Call::write, [path = from_] { stdfs::resize_file(path, 1500); });
  EXPECT_EQ(copying(), Raised{});
  EXPECT_EQ(test::readFile(to_), std::string(1500, 'x'));
}

TEST_F(CopierTest, AFullTargetIsTheWriteErrorAndWhatArrivedStays) {
  const auto child = inChild([&] {
    const std::string full = folder_ / "full";
    stdfs::create_directory(full);
    if (!test::mountPrivately(full, "64k")) return 77;
    test::writeFile(from_, std::string(200000, 'x'));
    const std::string to = full + "/to";
    std::cout << raisedBy([&] { Copier().copy(from_.c_str(), to.c_str()); }) << '\n' << stdfs::file_size(to);
    return 0;
  });
  if (child.exitCode() == 77) GTEST_SKIP() << "a private file system cannot be mounted here";
  EXPECT_EQ(child.out, "kes::OsError 28 \"\" at src/os/posix/fs/StreamFile (write)\n65536") << child.err;
}

TEST_F(CopierTest, ATargetAtItsSizeLimitIsTheWriteError) {
  const auto child = inChild([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    test::writeFile(from_, std::string(5000, 'x'));
    const rlimit few{2500, 2500};
    ::setrlimit(RLIMIT_FSIZE, &few);
    std::cout << copying() << '\n' << stdfs::file_size(to_);
    return 0;
  });
  EXPECT_EQ(child.out, "kes::OsError 27 \"\" at src/os/posix/fs/StreamFile (write)\n2500") << child.err;
}

TEST_F(CopierTest, AFullDeviceIsTheWriteError) {
  StreamFile out;
  out.open("/dev/full", File::WRITE);
  // A device cannot be cut to length 0: that is the error of a stream, while a name is simply written to.
  EXPECT_EQ(raisedBy([&] { Copier().copy(from_.c_str(), out); }),
            (Raised{"kes::OsError", EINVAL, "", fileSite, "truncate"}));
  EXPECT_EQ(raisedBy([&] { Copier(nullptr, 0, Flags::OVERWRITE).copy(from_.c_str(), "/dev/full"); }),
            (Raised{"kes::OsError", ENOSPC, "", streamSite, "write"}));
}

}  // namespace
}  // namespace kes::fs
