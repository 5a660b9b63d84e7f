#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "kespal/fs/SaveFile.h"
#include "support/Calls.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::made;
using test::raisedBy;
using test::readFile;
using test::Refuse;

struct DeviceSyncTest : testing::Test {
  test::TempDir dir;
  std::string path = dir / "settings";
  const int before = made(Call::fsync);

  void save() const {
    SaveFile file(path.c_str());
    file.write("new", 3);
    file.commit();
  }
};

TEST_F(DeviceSyncTest, IsLeftToFsyncWhereTheFileSystemRefusesIt) {
  for (const int refusal : {ENOTTY, ENOTSUP, EINVAL, ENODEV}) {
    const int soFar = made(Call::fsync);
    const Refuse refusing(Call::fcntl, refusal, {.option = F_FULLFSYNC});
    save();
    EXPECT_EQ(made(Call::fsync), soFar + 2) << "the file and its directory";
    EXPECT_EQ(readFile(path), "new");
  }
}

TEST_F(DeviceSyncTest, NeedsNoFsyncAfterwards) {
  const Refuse allowing(Call::fcntl, 0, {.option = F_FULLFSYNC});
  save();
  EXPECT_EQ(made(Call::fsync), before);
}

TEST_F(DeviceSyncTest, ThatFailsIsNotMadeGoodByFsync) {
  test::writeFile(path, "old");
  for (const int failure : {EIO, ENOSPC, EDQUOT}) {
    const Refuse failing(Call::fcntl, failure, {.option = F_FULLFSYNC});
    EXPECT_EQ(raisedBy([&] { save(); }).errnum, failure);
    EXPECT_EQ(made(Call::fsync), before);
    EXPECT_EQ(readFile(path), "old");
  }
}

TEST_F(DeviceSyncTest, ThatIsInterruptedIsAskedForAgain) {
  // More often than one save flushes: who goes on with fsync() does not come to the last.
  const Refuse interrupting(Call::fcntl, EINTR, {.skip = 0, .times = 3, .option = F_FULLFSYNC});
  save();
  EXPECT_EQ(interrupting.struck(), 3);
  EXPECT_EQ(readFile(path), "new");
}

}  // namespace
}  // namespace kes::fs
