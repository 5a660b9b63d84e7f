// What is asked of /proc where there is none.
#include <unistd.h>

#include <array>
#include <cerrno>

#include "kesos/files.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

namespace {

TEST(NoProcTest, TheProgramsPlaceIsUnknownAndTheErrorSaysThatALinkIsMissing) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root: the root directory of the test is made by chroot";
  const kes::test::TempDir dir;
  const auto child = kes::test::inChild([&dir] {
    if (::chroot(dir.path().c_str()) != 0) return 1;
    std::array<char, KESOS_PATH_SIZE> path{}, name{};
    unsigned int error = 0;
    if (KesOsGetModuleFileName(path.data(), path.size(), name.data(), name.size(), &error) != 0) return 2;
    return error == ENOENT && errno == ENOENT && path[0] == '\0' && name[0] == '\0' ? 0 : 3;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

}  // namespace
