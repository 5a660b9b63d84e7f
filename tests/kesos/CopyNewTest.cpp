// Whether a copy is new is told by the system's answer, not by an error of long ago.
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "kesos/files.h"
#include "support/Descriptors.h"
#include "support/TempDir.h"

namespace {

TEST(CopyNewTest, AnOldErrorNumberMakesNoNewFileAnOldOne) {
  const kes::test::TempDir dir;
  const std::string from = dir / "from", to = dir / "to";
  std::ofstream(from) << "content";
  ASSERT_EQ(::chmod(from.c_str(), 04755), 0);
  const auto before = kes::test::openDescriptors();
  errno = EEXIST;
  ASSERT_EQ(KesOsCopyFile(from.c_str(), to.c_str(), 0), 1);
  EXPECT_EQ(kes::test::openDescriptors(), before);
  struct stat copy {};
  ASSERT_EQ(::stat(to.c_str(), &copy), 0);
  EXPECT_EQ(copy.st_mode & 07777, 04755U);
}

}  // namespace
