#include <atomic>

#include "kespal/error/StaticError.h"

// What is initialised at its first use holds a lock meanwhile, and a child that is forked by another thread
// waits for it for ever.

namespace {
std::atomic<int> initialisations{0};
}

// NOLINTBEGIN(bugprone-reserved-identifier): the names that the linker's --wrap gives
extern "C" int __real___cxa_guard_acquire(void* guard);
extern "C" int __wrap___cxa_guard_acquire(void* guard) {
  ++initialisations;
  return __real___cxa_guard_acquire(guard);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace kes {
namespace {

TEST(FirstUseTest, ALookAtTheFramesOfAnErrorInitialisesNothing) {
  const RuntimeError error("text");
  const int before = initialisations;
  EXPECT_TRUE(error.backtrace().empty());
  EXPECT_EQ(initialisations, before);
}

TEST(FirstUseTest, ABacktraceInitialisesNothing) {
  const int before = initialisations;
  EXPECT_FALSE(Backtrace::get().empty());
  EXPECT_EQ(initialisations, before);
}

}  // namespace
}  // namespace kes
