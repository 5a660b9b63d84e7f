// Children in large numbers, from many threads, with pids that come again.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <list>
#include <locale>
#include <memory>
#include <sstream>
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

/// The rounds of a loop: so many every day; in a soak no fewer than another number, and on until the seconds
/// that KES_TEST_SOAK names are over.
class Rounds {
 public:
  Rounds(int everyDay, int inASoak) {
    const char* const seconds = std::getenv("KES_TEST_SOAK");
    left_ = scaled(seconds != nullptr ? inASoak : everyDay);
    if (seconds != nullptr) end_ = Clock::now() + std::chrono::seconds(std::atoi(seconds));
  }

  bool next() { return left_-- > 0 || Clock::now() < end_; }

 private:
  using Clock = std::chrono::steady_clock;

  int left_;
  Clock::time_point end_ = Clock::time_point::min();
};

/// Threads that do something again and again while the object lives.
class Noise {
 public:
  ~Noise() {
    done_ = true;
    for (std::thread& thread : threads_) thread.join();
  }

  void add(const std::function<void()>& turn) {
    threads_.emplace_back([this, turn] {
      while (!done_) turn();
    });
  }

 private:
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

// What a child inherits from a plain fork: the locks of the streams' locales and of the loader, maybe held.
TEST(ChildLoadTest, NoStartHangsWhileOthersMakeStreamsUnderAForeignLocaleAndLoadLibraries) {
  const auto result = test::inChild([] {
    std::locale::global(std::locale(std::locale::classic(), new std::numpunct<char>));
    std::atomic<int> failed{0};
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    {
      Noise noise;
      for (int number = 0; number < 2; ++number) {
        noise.add([] { std::ostringstream() << 1234.5; });
        noise.add([] { const std::vector<std::string> texts(100, std::string(100, 'x')); });
        // The thread sanitizer reports races that the loader has with itself.
        if (test::threadSanitizer) continue;
        noise.add([] {
          if (void* const library = ::dlopen("libresolv.so.2", RTLD_NOW)) ::dlclose(library);
        });
      }
      inThreads(64, [&failed, null](int thread) {
        Rounds rounds(10, 200);
        for (int round = 0; rounds.next(); ++round) {
          const bool fails = (thread + round) % 4 == 0;
          Child child({fails ? "/no/such/program" : "/bin/true"});
          child.setStderr(null);
          if (round % 2 == 1) child.setEnvironment({"A=1"});
          child.create();
          if (child.wait().status != (fails ? 125 << 8 : 0)) ++failed;
        }
      });
    }
    Child::exit();
    return failed == 0 ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

std::atomic<pid_t> g_parent{0};
std::atomic<int>* g_strays = nullptr;  ///< handlers that ran in children; in shared memory

TEST(ChildLoadTest, NoHandlerOfTheParentRunsInAChildWhateverMomentTheSignalComes) {
  const auto result = test::inChild([] {
    ::setpgid(0, 0);
    g_strays = static_cast<std::atomic<int>*>(
        ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    g_parent = ::getpid();
    struct sigaction action {};
    action.sa_handler = [](int) {
      if (::getpid() != g_parent) ++*g_strays;
    };
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> done{false};
    std::thread sender([&done] {
      while (!done) ::kill(0, SIGUSR1);  // to all that were started here, too
    });
    int others = 0;
    for (Rounds rounds(300, 300); rounds.next();) {
      Child child({"/bin/true"});
      child.create();
      const int status = child.wait().status;
      if (status != 0 && status != SIGUSR1) ++others;
    }
    done = true;
    sender.join();
    Child::exit();
    std::cout << *g_strays << ' ' << others;
    return 0;
  });
  EXPECT_EQ(result.out, "0 0") << result.err;
}

TEST(ChildLoadTest, AReportIntoAFullPipeHoldsUpTheChildAndNotItsParent) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const char block[4096] = "";
  while (::write(ends[1], block, sizeof block) > 0) {
  }
  ::fcntl(ends[1], F_SETFL, 0);
  Child child({"/no/such/program"});
  child.setStderr(ends[1]);
  child.create();
  EXPECT_FALSE(child.wait(true, std::chrono::milliseconds(20)).finished);
  ::close(ends[1]);
  std::string text;
  ::fcntl(ends[0], F_SETFL, 0);
  char piece[4096];
  for (ssize_t count; (count = ::read(ends[0], piece, sizeof piece)) > 0;) {
    text.append(piece, static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  EXPECT_EQ(child.wait().status, 125 << 8);
  EXPECT_NE(text.find("In child process "), text.npos);
  Child::exit();
}

TEST(ChildLoadTest, StartersThatAreCancelledLeaveNothingHalfDone) {
  KES_SKIP_UNDER_SANITIZERS("loses track of the stack of a thread that a cancellation unwinds");
  const auto result = test::inChild([] {
    Child::init();
    Rounds rounds(200, 200);
    for (int round = 0; rounds.next(); ++round) {
      ::pthread_t starter{};
      ::pthread_create(
          &starter, nullptr,
          [](void*) -> void* {
            for (;;) {
              Child child({"/bin/true"});
              child.create();
              child.wait();
            }
          },
          nullptr);
      for (int turn = 0; turn < round % 50; ++turn) std::this_thread::yield();
      ::pthread_cancel(starter);
      ::pthread_join(starter, nullptr);
    }
    Child child({"/bin/true"});
    child.create();
    const int status = child.wait().status;
    Child::exit();
    return status;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(result.err, "");
}

/// Does something on a thread of its own that is cancelled already. Gives what the thread ended with.
void* doneCancelled(void* (*action)(void*), void* argument) {
  struct Job {
    void* (*action)(void*);
    void* argument;
  } job{action, argument};
  ::pthread_t thread{};
  ::pthread_create(
      &thread, nullptr,
      [](void* all) -> void* {
        ::pthread_cancel(::pthread_self());
        const auto& todo = *static_cast<Job*>(all);
        return todo.action(todo.argument);
      },
      &job);
  void* end = nullptr;
  ::pthread_join(thread, &end);
  return end;
}

TEST(ChildLoadTest, AProgramThatCannotTakeThePlaceOfACancelledThreadsProcessIsReported) {
  KES_SKIP_UNDER_SANITIZERS("loses track of the stack of a thread that a cancellation unwinds");
  const auto result = test::inChild([] {
    const auto become = [](void*) -> void* {
      Child child({"/no/such/program"});
      child.create(/*inPlace=*/true);
      return nullptr;
    };
    doneCancelled(become, nullptr);
    return 1;
  });
  EXPECT_EQ(result.exitCode(), 125);
  EXPECT_NE(result.err.find("/no/such/program"), result.err.npos) << result.err;
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
  inThreads(8, [](int) {
    for (int round = 0; round < scaled(400); ++round) {
      try {
        Child child({"/bin/true"});
        child.create(false);
        child.wait(true, std::chrono::seconds(60));
      } catch (const Exception&) {
        // The collector ended under it: that is said, and nobody hangs.
      }
    }
  });
  done = true;
  ender.join();

  Child after({"/bin/sh", "-c", "exit 7"});
  after.create(false);
  EXPECT_EQ(after.wait().status, 7 << 8);
  Child::exit();
}

class ClockSetup : public testing::Environment {
  void SetUp() override { time::ClockBase::init(); }
};
const auto* const clockSetup = testing::AddGlobalTestEnvironment(new ClockSetup);

}  // namespace
}  // namespace kes::proc
