#include "kesos/mappings.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "kesos/Ipc.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

class MappingsTest : public IpcTest {
 protected:
  TempDir dir_;
  KesOsMmf mapping_{9, 9, 9, this, 9, 9};
};

char* bytes(const KesOsMmf& mapping) { return static_cast<char*>(mapping.address); }

int openDescriptors() {
  const std::filesystem::directory_iterator own("/proc/self/fd");
  return static_cast<int>(std::distance(begin(own), end(own)));
}

TEST_F(MappingsTest, AMissingFileIsCreatedWithZeros) {
  const std::string file = dir_ / "map";
  ASSERT_EQ(KesOsMmfCreate(&mapping_, 100000, file.c_str(), 0), 1);
  EXPECT_GE(mapping_.fd, 0);
  EXPECT_EQ(mapping_.shmid, -1);
  EXPECT_EQ(mapping_.size, 100000U);
  EXPECT_EQ(mapping_.created, 1);
  EXPECT_EQ(mapping_.error, 0);
  EXPECT_EQ(readFile(file), std::string(100000, '\0'));
  EXPECT_EQ(shell("stat -c %a " + file), "600");
  EXPECT_EQ(::fcntl(mapping_.fd, F_GETFD), FD_CLOEXEC);
  std::strcpy(bytes(mapping_) + 70000, "written");
  EXPECT_EQ(KesOsMmfFlush(&mapping_, bytes(mapping_) + 70003, 3), 1);
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1);
  EXPECT_EQ(mapping_.fd, -1);
  EXPECT_EQ(mapping_.address, nullptr);
  EXPECT_EQ(readFile(file).substr(70000, 7), "written");
}

TEST_F(MappingsTest, AShorterFileGrowsWithZeros) {
  const std::string file = dir_ / "map";
  writeFile(file, "short");
  ASSERT_EQ(KesOsMmfCreate(&mapping_, 10, file.c_str(), 0), 1);
  EXPECT_EQ(mapping_.created, 0);
  EXPECT_EQ(mapping_.size, 10U);
  EXPECT_EQ(readFile(file), std::string("short\0\0\0\0\0", 10));
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1);
}

TEST_F(MappingsTest, ALongerFileIsMappedWhole) {
  const std::string file = dir_ / "map";
  writeFile(file, std::string(9000, 'x'));
  ASSERT_EQ(KesOsMmfCreate(&mapping_, 10, file.c_str(), 0), 1);
  EXPECT_EQ(mapping_.size, 9000U);
  EXPECT_EQ(bytes(mapping_)[8999], 'x');
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1);
  EXPECT_EQ(readFile(file), std::string(9000, 'x'));
}

TEST_F(MappingsTest, TwoProcessesShareAMappedFile) {
  const std::string file = dir_ / "map";
  ASSERT_EQ(KesOsMmfCreate(&mapping_, 64, file.c_str(), 0), 1);
  const ChildResult result = inChild([&file] {
    KesOsMmf own{};
    if (KesOsMmfCreate(&own, 64, file.c_str(), 0) != 1 || own.created != 0) return 1;
    std::strcpy(bytes(own), "from the child");
    return KesOsMmfClose(&own) == 1 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_STREQ(bytes(mapping_), "from the child");
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1);
}

TEST_F(MappingsTest, AFileThatCannotBeMappedGivesTheReasonAndLeaksNothing) {
  const int before = openDescriptors();
  EXPECT_EQ(KesOsMmfCreate(&mapping_, 10, (dir_ / "no/such/file").c_str(), 0), 0);
  EXPECT_EQ(mapping_.error, ENOENT);
  EXPECT_EQ(mapping_.created, 0);
  EXPECT_EQ(KesOsMmfCreate(&mapping_, 10, dir_.path().c_str(), 0), 0);
  EXPECT_EQ(mapping_.error, EISDIR);
  EXPECT_EQ(KesOsMmfCreate(&mapping_, 0, (dir_ / "empty").c_str(), 0), 0);
  EXPECT_EQ(mapping_.error, EINVAL) << "nothing of no length can be mapped";
  EXPECT_EQ(mapping_.fd, -1);
  EXPECT_EQ(mapping_.address, nullptr);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(MappingsTest, AFileBeyondTheRecordsLengthIsRefused) {
  const std::string file = dir_ / "map";
  writeFile(file, "");
  std::filesystem::resize_file(file, (std::uintmax_t{4} << 30U) + 5);
  EXPECT_EQ(KesOsMmfCreate(&mapping_, 10, file.c_str(), 0), 0);
  EXPECT_EQ(mapping_.error, EOVERFLOW);
}

TEST_F(MappingsTest, AFullFileSystemFailsTheCreateAndLeavesTheFileAsItWas) {
  const ChildResult result = inChild([this] {
    const std::string file = dir_ / "map";
    writeFile(file, "as it was");
    const rlimit limit{65536, 65536};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    ::signal(SIGXFSZ, SIG_IGN);
    if (KesOsMmfCreate(&mapping_, 1000000, file.c_str(), 0) != 0) return 1;
    if (mapping_.error != EFBIG || mapping_.fd != -1) return 2;
    return readFile(file) == "as it was" ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(MappingsTest, ALoweredDescriptorLimitFailsTheCreate) {
  KES_SKIP_UNDER_SANITIZERS("needs descriptors to check the type of an object");
  const ChildResult result = inChild([this] {
    const DescriptorLimit limit(3);
    return KesOsMmfCreate(&mapping_, 10, (dir_ / "map").c_str(), 0) == 0 && mapping_.error == EMFILE ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST_F(MappingsTest, ASegmentIsCreatedOnceAndThenOpened) {
  const auto key = static_cast<key_t>(freshKey());
  ASSERT_EQ(KesOsMmfCreate(&mapping_, 300, nullptr, key), 1);
  EXPECT_EQ(mapping_.fd, -1);
  EXPECT_GE(mapping_.shmid, 0);
  EXPECT_EQ(mapping_.size, 300U);
  EXPECT_EQ(mapping_.created, 1);
  EXPECT_EQ(mapping_.error, 0);
  KesOsMmf second{};
  ASSERT_EQ(KesOsMmfCreate(&second, 700, "", key), 1);
  EXPECT_EQ(second.shmid, mapping_.shmid);
  EXPECT_EQ(second.size, 300U) << "as it is";
  EXPECT_EQ(second.created, 0);
  EXPECT_EQ(second.error, EEXIST);
  KesOsMmf third{};
  ASSERT_EQ(KesOsMmfOpen(&third, 12345, key), 1);
  EXPECT_EQ(third.size, 300U);
  EXPECT_EQ(third.error, 0);
  std::strcpy(bytes(mapping_), "shared");
  EXPECT_STREQ(bytes(second), "shared");
  EXPECT_EQ(
      perl("my $id = shmget(" + std::to_string(key) + ", 0, 0); shmread($id, my $text, 0, 6); print $text;"),
      "shared");
  perl("my $id = shmget(" + std::to_string(key) + ", 0, 0); shmwrite($id, \"Perl!\", 0, 5);");
  EXPECT_EQ(std::string(bytes(third), 6), "Perl!d");
  EXPECT_EQ(KesOsMmfClose(&third), 1);
  EXPECT_EQ(KesOsMmfClose(&second), 1);
  EXPECT_NE(::shmget(key, 0, 0), -1);
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1);
  EXPECT_EQ(::shmget(key, 0, 0), -1) << "the last one removed it";
  EXPECT_EQ(shell("ipcs -m | grep -c dest || true"), "0") << "and detached it";
  EXPECT_EQ(mapping_.shmid, -1);
  EXPECT_EQ(mapping_.address, nullptr);
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1) << "closed already";
}

TEST_F(MappingsTest, OpeningNeedsASegment) {
  EXPECT_EQ(KesOsMmfOpen(&mapping_, 0, static_cast<key_t>(freshKey())), 0);
  EXPECT_EQ(mapping_.error, ENOENT);
  EXPECT_EQ(mapping_.shmid, -1);
}

TEST_F(MappingsTest, ASegmentThatCannotBeAttachedIsRemoved) {
  const auto key = static_cast<key_t>(freshKey());
  const Refuse refused(Call::shmat, ENOMEM, once);
  EXPECT_EQ(KesOsMmfCreate(&mapping_, 300, nullptr, key), 0);
  EXPECT_EQ(mapping_.error, ENOMEM);
  EXPECT_EQ(::shmget(key, 0, 0), -1);
  ASSERT_NE(::shmget(key, 300, IPC_CREAT | 0600), -1);
  const Refuse again(Call::shmat, ENOMEM, once);
  EXPECT_EQ(KesOsMmfOpen(&mapping_, 0, key), 0);
  EXPECT_EQ(mapping_.error, ENOMEM);
  EXPECT_EQ(::shmget(key, 0, 0), -1);
}

TEST_F(MappingsTest, TwoProcessesThatDetachAtOnceLeaveNoSegment) {
  for (int round = 0; round < 200; ++round) {
    const auto key = static_cast<key_t>(freshKey());
    const Shared<std::atomic<int>> attached;
    const auto codes = runProcesses(2, [&](int) {
      KesOsMmf own{};
      const bool isAttached = KesOsMmfCreate(&own, 100, nullptr, key) == 1;
      ++*attached;
      while (*attached < 2) {
      }
      return isAttached && KesOsMmfClose(&own) == 1 ? 0 : 1;
    });
    ASSERT_THAT(codes, testing::Each(0));
    ASSERT_EQ(::shmget(key, 0, 0), -1) << round;
  }
}

TEST_F(MappingsTest, FlushingTakesAnyAddressInTheMapping) {
  ASSERT_EQ(KesOsMmfCreate(&mapping_, 20000, (dir_ / "map").c_str(), 0), 1);
  EXPECT_EQ(KesOsMmfFlush(nullptr, bytes(mapping_), 20000), 1);
  EXPECT_EQ(KesOsMmfFlush(&mapping_, bytes(mapping_) + 5000, 1), 1);
  EXPECT_EQ(KesOsMmfFlush(&mapping_, bytes(mapping_) + 4095, 2), 1);
  EXPECT_EQ(KesOsMmfFlush(&mapping_, nullptr, 4096), 0);
  EXPECT_EQ(KesOsMmfClose(&mapping_), 1);
}

TEST_F(MappingsTest, NullRecordsGiveZero) {
  EXPECT_EQ(KesOsMmfCreate(nullptr, 10, "x", 0), 0);
  EXPECT_EQ(KesOsMmfOpen(nullptr, 0, 5), 0);
  EXPECT_EQ(KesOsMmfClose(nullptr), 0);
}

}  // namespace
