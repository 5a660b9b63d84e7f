// Children in large numbers, from many threads, with pids that come again.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kespal/error/OsError.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"
#include "kespal/thread/Lock.h"
#include "kespal/time/Clock.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

namespace kes::proc {
namespace {

/// A sanitizer makes a start ten times as slow; a fraction of them has the same races.
constexpr int scaled(int count) { return test::isSanitized ? count / 10 : count; }

void inThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) threads.emplace_back(body, number);
  for (std::thread& thread : threads) thread.join();
}

TEST(ChildLoadTest, TenThousandChildrenOfSixteenThreadsDeliverEachStatusOnce) {
  std::atomic<int> wrong{0};
  inThreads(16, [&wrong](int thread) {
    for (int round = 0; round < scaled(10'000) / 16; ++round) {
      const int code = (thread * 31 + round) % 120;
      Child child({"/bin/sh", "-c", "exit " + std::to_string(code)});
      child.create(false);
      if (child.wait(false, {}).status != code << 8) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0);
  Child::exit();
}

TEST(ChildLoadTest, NoChildHangsWhileOtherThreadsAllocateLogAndTakeLocks) {
  const auto result = test::inChild([] {
    std::atomic<bool> done{false};
    std::atomic<int> failed{0};
    const thread::Lock lock(thread::Normal);
    std::vector<std::thread> noise;
    for (int number = 0; number < 4; ++number) {
      noise.emplace_back([&, number] {
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> log(std::fopen("/dev/null", "we"),
                                                                  &std::fclose);
        while (!done) {
          lock.lock();
          const std::string line(static_cast<std::size_t>(100 + number), 'x');
          lock.unlock();
          std::fprintf(log.get(), "%s\n", line.c_str());
          std::this_thread::yield();
        }
      });
    }
    inThreads(64, [&failed](int) {
      for (int round = 0; round < scaled(200); ++round) {
        Child child({"/bin/true"});
        if (round % 2 == 1) child.setEnvironment({"A=1"});
        child.create(false);
        if (child.wait(false, {}).status != 0) ++failed;
      }
    });
    done = true;
    for (std::thread& thread : noise) thread.join();
    Child::exit();
    return failed == 0 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

/// Runs a function as the first process of a pid namespace of its own; -1 where that is not permitted.
int inPidNamespace(const std::function<int()>& body) {
  return test::inChild([&body] {
           if (::unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) return 77;
           return test::inChild([&body] {
                    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                        ::mount("proc", "/proc", "proc", 0, nullptr) != 0) {
                      return 77;
                    }
                    return body();
                  })
               .exitCode();
         })
      .exitCode();
}

TEST(ChildLoadTest, APidThatComesAgainIsTheNewChilds) {
  const int result = inPidNamespace([] {
    const auto startAs = [](Child& child, int pid) {
      std::ofstream("/proc/sys/kernel/ns_last_pid") << pid - 1 << std::flush;
      child.create(false);
      return child.pid() == pid;
    };
    int reused = 0;
    Child::init();
    for (int round = 0; round < 200; ++round) {
      const int code = round % 100;
      {
        Child forgotten({"/bin/sh", "-c", "exit 99"});
        if (!startAs(forgotten, 300)) continue;
        while (::kill(300, 0) == 0) std::this_thread::yield();  // reaped, and its status never asked for
        Child child({"/bin/sh", "-c", "exit " + std::to_string(code)});
        if (startAs(child, 300)) ++reused;
        if (child.wait(false, {}).status != code << 8) return 1;
      }
    }
    Child::exit();
    return reused > 0 ? 0 : 2;
  });
  if (result == 77) GTEST_SKIP() << "a pid namespace of the test's own is not permitted here";
  EXPECT_EQ(result, 0);
}

TEST(ChildLoadTest, ChildrenThatHadOnePidOneAfterTheOtherAreNotMixedUp) {
  const int result = inPidNamespace([] {
    const auto startAs300 = [](Child& child) {
      std::ofstream("/proc/sys/kernel/ns_last_pid") << 299 << std::flush;
      child.create(false);
      return child.pid() == 300;
    };
    int reused = 0;
    Child::init();
    for (int round = 0; round < 100; ++round) {
      auto forgotten = std::make_unique<Child>(std::list<std::string>{"/bin/sh", "-c", "exit 98"});
      Child old({"/bin/sh", "-c", "exit 99"}), running({"/bin/sleep", "3600"});
      if (!startAs300(old)) continue;
      while (::kill(300, 0) == 0) std::this_thread::yield();  // reaped
      if (!startAs300(*forgotten)) continue;
      while (::kill(300, 0) == 0) std::this_thread::yield();
      if (!startAs300(running)) {
        running.kill();
        continue;
      }
      ++reused;
      forgotten.reset();
      try {
        old.kill(SIGKILL);
        return 1;  // that was the wrong one
      } catch (const NoSuchProcessError&) {
      }
      if (old.wait(true, std::chrono::seconds(60)).status != 99 << 8) return 2;
      if (running.wait(true, std::chrono::milliseconds(0)).finished) return 3;
      running.kill(SIGTERM);
      if (running.wait(true, std::chrono::seconds(60)).status != SIGTERM) return 4;
    }
    Child::exit();
    return reused > 0 ? 0 : 5;
  });
  if (result == 77) GTEST_SKIP() << "a pid namespace of the test's own is not permitted here";
  EXPECT_EQ(result, 0);
}

TEST(ChildLoadTest, CollectorsComeAndGoWhileOthersStartAndWait) {
  std::atomic<bool> done{false};
  std::thread ender([&done] {
    while (!done) {
      Child::exit();
      std::this_thread::yield();
    }
  });
  std::atomic<int> finished{0};
  inThreads(8, [&finished](int) {
    for (int round = 0; round < scaled(400); ++round) {
      try {
        Child child({"/bin/true"});
        child.create(false);
        if (child.wait(true, std::chrono::seconds(60)).finished) ++finished;
      } catch (const Exception&) {
        // The collector ended under it: that is said, and nobody hangs.
      }
    }
  });
  done = true;
  ender.join();
  Child::exit();
  EXPECT_GT(finished, 0);
}

class ClockSetup : public testing::Environment {
  void SetUp() override { time::ClockBase::init(); }
};
const auto* const clockSetup = testing::AddGlobalTestEnvironment(new ClockSetup);

}  // namespace
}  // namespace kes::proc
