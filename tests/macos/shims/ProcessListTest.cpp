#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <cerrno>

#include "kespal/proc/Info.h"

namespace {
/// So many lists are asked for with too little room: processes were started meanwhile.
int g_tooShort = 0;
int g_refused = 0;
}  // namespace

extern "C" int __real_sysctl(int* name, unsigned count, void* old, std::size_t* oldSize, void* next,
                             std::size_t nextSize);
extern "C" int __wrap_sysctl(int* name, unsigned count, void* old, std::size_t* oldSize, void* next,
                             std::size_t nextSize) {
  if (old == nullptr || (g_tooShort == 0 && g_refused == 0)) {
    return __real_sysctl(name, count, old, oldSize, next, nextSize);
  }
  errno = g_refused != 0 ? EPERM : ENOMEM;
  --(g_refused != 0 ? g_refused : g_tooShort);
  return -1;
}

namespace kes::proc {
namespace {

TEST(ProcessListTest, IsAskedForAgainWhileProcessesAreStarted) {
  ::prctl(PR_SET_NAME, "kes-list-probe");
  g_tooShort = 3;
  EXPECT_TRUE(Info::running("kes-list-probe").contains(::getpid()));
  EXPECT_EQ(g_tooShort, 0);
}

TEST(ProcessListTest, IsEmptyWhenTheKernelRefusesIt) {
  ::prctl(PR_SET_NAME, "kes-list-probe");
  g_refused = 1;
  EXPECT_TRUE(Info::running("kes-list-probe").empty());
}

}  // namespace
}  // namespace kes::proc
