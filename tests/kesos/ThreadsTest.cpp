#include "kesos/threads.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/time.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

enum : unsigned int { notRunning = 0, running = 1, stopRequested = 3 };

unsigned int look(const unsigned int& state) { return __atomic_load_n(&state, __ATOMIC_ACQUIRE); }
void set(unsigned int& state, unsigned int value) { __atomic_store_n(&state, value, __ATOMIC_RELEASE); }

/// What the threads of these tests work on.
struct Worker {
  std::atomic<bool> began = false;
  std::atomic<bool> ended = false;
  std::atomic<bool> unwound = false;
  unsigned int state = notRunning;
};

void* endAtOnce(void* arg) {
  static_cast<Worker*>(arg)->ended = true;
  return nullptr;
}

/// Runs until it is asked to stop, as the state word wants it.
void* runUntilAsked(void* arg) {
  auto& worker = *static_cast<Worker*>(arg);
  worker.began = true;
  while (look(worker.state) != stopRequested) KesOsSleep(1);
  worker.ended = true;
  set(worker.state, notRunning);
  return nullptr;
}

/// Sleeps until it is cancelled.
void* sleepForEver(void* arg) {
  auto& worker = *static_cast<Worker*>(arg);
  pthread_cleanup_push([](void* own) { static_cast<Worker*>(own)->unwound = true; }, &worker);
  worker.began = true;
  // Not in a sleep of the library: a frame that a cancellation skips confuses the address sanitizer.
  for (;;) ::pause();
  pthread_cleanup_pop(0);
}

TEST(ThreadsTest, AThreadRunsWithItsArgument) {
  Worker worker;
  pthread_t thread{};
  ASSERT_EQ(KesOsThreadBegin(&thread, endAtOnce, 0, &worker), 1);
  EXPECT_NE(thread, pthread_t{});
  EXPECT_TRUE(eventually([&] { return worker.ended.load(); }));
}

TEST(ThreadsTest, AThreadIsDetached) {
  static std::promise<int> kind;
  pthread_t thread{};
  const auto report = [](void*) -> void* {
    pthread_attr_t attributes;
    int state = -1;
    ::pthread_getattr_np(::pthread_self(), &attributes);
    ::pthread_attr_getdetachstate(&attributes, &state);
    ::pthread_attr_destroy(&attributes);
    kind.set_value(state);
    return nullptr;
  };
  ASSERT_EQ(KesOsThreadBegin(&thread, report, 0, nullptr), 1);
  EXPECT_EQ(kind.get_future().get(), PTHREAD_CREATE_DETACHED);
}

TEST(ThreadsTest, ADefaultStackHasAtMost262144Bytes) {
  KES_SKIP_UNDER_THREAD_SANITIZER("gives threads stacks of its own size");
  EXPECT_EQ(shell(KES_STACK_PROBE), "262144");
  EXPECT_EQ(shell("ulimit -s 128; " KES_STACK_PROBE), "131072") << "a smaller default is kept";
  EXPECT_EQ(shell("ulimit -s unlimited; " KES_STACK_PROBE), "262144");
}

TEST(ThreadsTest, AStackSizeIsTakenAsItIs) {
  KES_SKIP_UNDER_THREAD_SANITIZER("gives threads stacks of its own size");
  // The least there is has 128 KiB on arm64, and 16 KiB on x86_64.
  const std::string small = std::to_string(std::max(65536L, ::sysconf(_SC_THREAD_STACK_MIN)));
  EXPECT_EQ(shell(KES_STACK_PROBE " " + small), small);
  EXPECT_EQ(shell(KES_STACK_PROBE " 4194304"), "4194304");
}

TEST(ThreadsTest, AStackThatIsTooSmallIsRefused) {
  Worker worker;
  pthread_t thread = ::pthread_self();
  const auto tooSmall = static_cast<unsigned int>(::sysconf(_SC_THREAD_STACK_MIN) - 1);
  EXPECT_EQ(KesOsThreadBegin(&thread, endAtOnce, tooSmall, &worker), 0);
  EXPECT_EQ(thread, pthread_t{});
  EXPECT_FALSE(worker.ended);
}

TEST(ThreadsTest, NullPointersStartNothing) {
  Worker worker;
  pthread_t thread = ::pthread_self();
  EXPECT_EQ(KesOsThreadBegin(nullptr, endAtOnce, 0, &worker), 0);
  EXPECT_EQ(KesOsThreadBegin(&thread, nullptr, 0, &worker), 0);
  EXPECT_EQ(thread, pthread_t{});
  KesOsThreadCancel(nullptr);
  KesOsThreadCancel(&thread);
  EXPECT_FALSE(KesOsThreadSetName(nullptr));
  EXPECT_EQ(KesOsCallOnce(nullptr), 0);
  EXPECT_TRUE(KesOsThreadStop(nullptr, nullptr, 0, nullptr, nullptr));
}

TEST(ThreadsTest, AnExhaustedSystemMakesStartsFail) {
  const ChildResult result = asNobody([] {
    const rlimit none{0, 0};
    if (::setrlimit(RLIMIT_NPROC, &none) != 0) return 1;
    Worker worker;
    pthread_t thread = ::pthread_self();
    if (KesOsThreadBegin(&thread, endAtOnce, 0, &worker) != 0 || thread != pthread_t{}) return 2;
    if (KesOsThreadStart(&thread, &worker.state, endAtOnce, &worker) != 0) return 3;
    return worker.state == notRunning ? 0 : 4;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ThreadsTest, EndingAThreadGivesTheValueOne) {
  pthread_t thread{};
  const auto end = [](void*) -> void* {
    KesOsThreadEnd();
    return nullptr;
  };
  ASSERT_EQ(::pthread_create(&thread, nullptr, end, nullptr), 0);
  void* value = nullptr;
  ASSERT_EQ(::pthread_join(thread, &value), 0);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(value), 1U);
}

TEST(ThreadsTest, CancellingClearsTheHandle) {
  Worker worker;
  pthread_t thread{};
  ASSERT_EQ(KesOsThreadBegin(&thread, sleepForEver, 0, &worker), 1);
  ASSERT_TRUE(eventually([&] { return worker.began.load(); }));
  KesOsThreadCancel(&thread);
  EXPECT_EQ(thread, pthread_t{});
  EXPECT_TRUE(eventually([&] { return worker.unwound.load(); }));
}

TEST(ThreadsTest, AStateWordKeepsASecondThreadFromStarting) {
  Worker worker;
  pthread_t first{}, second{};
  ASSERT_EQ(KesOsThreadStart(&first, &worker.state, runUntilAsked, &worker), 1);
  EXPECT_NE(first, pthread_t{});
  EXPECT_EQ(look(worker.state), running);
  Worker other;
  EXPECT_EQ(KesOsThreadStart(&second, &worker.state, endAtOnce, &other), 1);
  EXPECT_EQ(second, pthread_t{});
  EXPECT_TRUE(KesOsThreadStop(nullptr, &worker.state, 600, nullptr, nullptr));
  EXPECT_TRUE(worker.ended);
  EXPECT_EQ(look(worker.state), notRunning);
  EXPECT_FALSE(other.ended);
  EXPECT_EQ(KesOsThreadStart(nullptr, &worker.state, endAtOnce, &other), 1);
  EXPECT_TRUE(eventually([&] { return other.ended.load(); })) << "once it has ended it can start again";
}

TEST(ThreadsTest, WithoutAStateWordAThreadJustStarts) {
  Worker worker;
  EXPECT_EQ(KesOsThreadStart(nullptr, nullptr, endAtOnce, &worker), 1);
  EXPECT_TRUE(eventually([&] { return worker.ended.load(); }));
}

TEST(ThreadsTest, StoppingByHandleCancelsAndSetsTheStateToZero) {
  Worker worker;
  pthread_t thread{};
  ASSERT_EQ(KesOsThreadStart(&thread, &worker.state, sleepForEver, &worker), 1);
  ASSERT_TRUE(eventually([&] { return worker.began.load(); }));
  EXPECT_TRUE(KesOsThreadStop(&thread, &worker.state, 1, nullptr, nullptr));
  EXPECT_EQ(thread, pthread_t{});
  EXPECT_EQ(look(worker.state), notRunning);
  EXPECT_TRUE(eventually([&] { return worker.unwound.load(); }));
}

TEST(ThreadsTest, StoppingWhatDoesNotRunIsDoneAtOnce) {
  unsigned int state = notRunning;
  const auto fail = [](void*) { ADD_FAILURE() << "nothing runs, so nobody is asked"; };
  EXPECT_TRUE(KesOsThreadStop(nullptr, &state, 0, fail, nullptr));
  EXPECT_EQ(state, notRunning);
  pthread_t cleared{};
  EXPECT_TRUE(KesOsThreadStop(&cleared, &state, 0, fail, nullptr));
}

TEST(ThreadsTest, AThreadThatDoesNotListenUsesTheTriesUp) {
  unsigned int state = running;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(KesOsThreadStop(nullptr, &state, 3, nullptr, nullptr));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300));
  EXPECT_EQ(state, stopRequested);
}

TEST(ThreadsTest, TheStopCallbackIsCalledOnceTheStopIsRequested) {
  Worker worker;
  worker.state = running;
  const auto callback = [](void* arg) {
    auto& own = *static_cast<Worker*>(arg);
    EXPECT_EQ(look(own.state), stopRequested);
    EXPECT_FALSE(own.ended.exchange(true)) << "called twice";
  };
  EXPECT_FALSE(KesOsThreadStop(nullptr, &worker.state, 1, callback, &worker));
  EXPECT_TRUE(worker.ended);
}

TEST(ThreadsTest, AStopCallbackThatChangesTheStateEndsTheWaiting) {
  const auto callback = [](void* arg) { set(*static_cast<unsigned int*>(arg), notRunning); };
  const auto start = std::chrono::steady_clock::now();
  for (int round = 0; round < 200; ++round) {
    unsigned int state = running;
    EXPECT_TRUE(KesOsThreadStop(nullptr, &state, 0, callback, &state));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)) << "each of them waited";
}

TEST(ThreadsTest, AThreadHasTheNameThatItGaveItself) {
  std::thread named([] {
    EXPECT_TRUE(KesOsThreadSetName("name of thread, long"));
    EXPECT_EQ(readFile("/proc/thread-self/comm"), "name of thread,\n") << "the system keeps 15 bytes";
    EXPECT_TRUE(KesOsThreadSetName(""));
    EXPECT_EQ(readFile("/proc/thread-self/comm"), "\n");
  });
  named.join();
}

TEST(ThreadsTest, OnlyTheFirstFunctionIsEverCalledAndOnlyOnce) {
  static std::atomic<int> first, second;
  const ChildResult result = inChild([] {
    const auto one = [] { ++first; };
    const auto two = [] { ++second; };
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
      threads.emplace_back([one] {
        if (KesOsCallOnce(one) != 1) first = 100;
      });
    }
    for (std::thread& thread : threads) thread.join();
    if (KesOsCallOnce(two) != 1 || KesOsCallOnce(one) != 1) return 1;
    return first == 1 && second == 0 ? 0 : 2;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

TEST(ThreadsTest, StoppingWhileTheThreadEndsByItselfNeverHangs) {
  for (int round = 0; round < 50; ++round) {
    Worker worker;
    const auto brief = [](void* arg) -> void* {
      auto& own = *static_cast<Worker*>(arg);
      set(own.state, notRunning);
      own.ended = true;
      return nullptr;
    };
    ASSERT_EQ(KesOsThreadStart(nullptr, &worker.state, brief, &worker), 1);
    ASSERT_TRUE(KesOsThreadStop(nullptr, &worker.state, 600, nullptr, nullptr));
    ASSERT_TRUE(eventually([&] { return worker.ended.load(); }));
  }
}

}  // namespace
