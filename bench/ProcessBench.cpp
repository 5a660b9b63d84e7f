// Starting programs and collecting what has ended: this library, the calls under it, and a peer. A raw
// collector does by hand what this library's does: one thread in wait(), statuses filed under their ids.
//
// Goals, as ratios of medians of one run (--benchmark_repetitions=7):
//   createAndWait/MiB   at most 1.15 x rawVforkAndWaitpid/MiB, at 10 and at 1,024 MiB of parent memory
//   startAndCollect     at most 1.3 x rawStartAndCollect
//   collect             at most 1.25 x rawCollect, per child that has ended
//   forkAndCollect      at most 1.9 x rawForkAndCollect
//   manyWaiters         at most 1.2 x rawManyWaiters
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <ctime>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <list>
#include <map>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"

#ifdef KES_BENCH_POCO
#include <Poco/Process.h>
#endif

namespace {

constexpr const char* program = "/bin/true";

/// Memory of this process that a fork has to copy the page tables of.
class Ballast {
 public:
  explicit Ballast(benchmark::State& state) : size_(static_cast<std::size_t>(state.range(0)) << 20) {
    memory_ = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory_ == MAP_FAILED) throw std::bad_alloc();
    ::madvise(memory_, size_, MADV_NOHUGEPAGE);
    for (std::size_t at = 0; at < size_; at += 4096) static_cast<char*>(memory_)[at] = 1;
  }
  ~Ballast() { ::munmap(memory_, size_); }
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;

 private:
  const std::size_t size_;
  void* memory_;
};

/// The collector in raw calls: no errors, no notifications, one condition for each who waits.
class RawCollector {
 public:
  RawCollector() {
    ::pthread_create(
        &thread_, nullptr,
        [](void* self) -> void* {
          static_cast<RawCollector*>(self)->collect();
          return nullptr;
        },
        this);
  }
  ~RawCollector() {
    ::pthread_mutex_lock(&mutex_);
    over_ = true;
    ::pthread_mutex_unlock(&mutex_);
    ::pthread_cond_signal(&work_);
    ::pthread_join(thread_, nullptr);
  }
  RawCollector(const RawCollector&) = delete;
  RawCollector& operator=(const RawCollector&) = delete;

  /// Forks a child that calls `body` and must not come back from there.
  template <typename Body>
  pid_t add(Body body) {
    ::pthread_mutex_lock(&mutex_);
    const pid_t pid = ::fork();
    if (pid == 0) body();
    registered_.insert(pid);
    ::pthread_mutex_unlock(&mutex_);
    ::pthread_cond_signal(&work_);
    return pid;
  }

  int wait(pid_t pid) {
    ::pthread_cond_t arrived = PTHREAD_COND_INITIALIZER;
    ::pthread_mutex_lock(&mutex_);
    waiters_[pid] = &arrived;
    auto result = results_.end();
    while ((result = results_.find(pid)) == results_.end()) ::pthread_cond_wait(&arrived, &mutex_);
    const int status = result->second;
    results_.erase(result);
    waiters_.erase(pid);
    ::pthread_mutex_unlock(&mutex_);
    ::pthread_cond_destroy(&arrived);
    return status;
  }

 private:
  bool awaitWork() {
    ::pthread_mutex_lock(&mutex_);
    while (registered_.empty() && !over_) ::pthread_cond_wait(&work_, &mutex_);
    const bool hasWork = !registered_.empty();
    ::pthread_mutex_unlock(&mutex_);
    return hasWork;
  }

  void collect() {
    while (awaitWork()) {
      int status = 0;
      const pid_t pid = ::wait(&status);
      ::pthread_mutex_lock(&mutex_);
      registered_.erase(pid);
      results_.insert({pid, status});
      const auto waiter = waiters_.find(pid);
      if (waiter != waiters_.end()) ::pthread_cond_signal(waiter->second);
      ::pthread_mutex_unlock(&mutex_);
    }
  }

  ::pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  ::pthread_cond_t work_ = PTHREAD_COND_INITIALIZER;
  ::pthread_t thread_{};
  std::set<pid_t> registered_;
  std::map<pid_t, int> results_;
  std::map<pid_t, ::pthread_cond_t*> waiters_;
  bool over_ = false;
};

/// This library's collector, and children that are forked by hand.
class Collector {
 public:
  Collector() { shepherd_.start(); }
  ~Collector() { shepherd_.stop(); }

  template <typename Body>
  pid_t add(Body body) {
    const kes::proc::Shepherd::Guard guard(shepherd_.condition());
    const pid_t pid = ::fork();
    if (pid == 0) body();
    shepherd_.addNoLock(pid, nullptr);
    return pid;
  }
  int wait(pid_t pid) {
    int status = -1;
    shepherd_.wait(pid, status);
    return status;
  }

  kes::proc::Shepherd& shepherd() { return shepherd_; }

 private:
  kes::proc::Shepherd shepherd_;
};

[[noreturn]] void becomeProgram() {
  char name[] = "/bin/true";
  char* const arguments[] = {name, nullptr};
  ::execvp(program, arguments);
  ::_exit(125);
}

// --- create and wait

void expectSuccess(benchmark::State& state, int status) {
  if (status != 0) state.SkipWithError("the program did not succeed");
}

void createAndWait(benchmark::State& state) {
  const Ballast ballast(state);
  kes::proc::Child child(std::list<std::string>{program});
  for (auto _ : state) {
    child.create(/*inPlace=*/false);
    expectSuccess(state, child.wait(/*timed=*/false, {}).status);
  }
  kes::proc::Child::exit();
}
BENCHMARK(createAndWait)->Arg(10)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);

void rawCreateAndWait(benchmark::State& state) {
  const Ballast ballast(state);
  RawCollector collector;
  for (auto _ : state) expectSuccess(state, collector.wait(collector.add(&becomeProgram)));
}
BENCHMARK(rawCreateAndWait)->Arg(10)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);

void awaitChild(benchmark::State& state, pid_t pid) {
  int status = -1;
  while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  expectSuccess(state, status);
}

/// Without a collector: what the hand-over to another thread costs.
void rawForkAndWaitpid(benchmark::State& state) {
  const Ballast ballast(state);
  for (auto _ : state) {
    const pid_t pid = ::fork();
    if (pid == 0) becomeProgram();
    awaitChild(state, pid);
  }
}
BENCHMARK(rawForkAndWaitpid)->Arg(10)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);

/// A start whose cost does not grow with the parent.
void rawSpawnAndWaitpid(benchmark::State& state) {
  const Ballast ballast(state);
  char name[] = "/bin/true";
  char* const arguments[] = {name, nullptr};
  for (auto _ : state) {
    pid_t pid = -1;
    if (::posix_spawn(&pid, program, nullptr, nullptr, arguments, environ) != 0) break;
    awaitChild(state, pid);
  }
}
BENCHMARK(rawSpawnAndWaitpid)->Arg(10)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);

/// Makes a child that shares this process's memory until its exec, in raw calls.
pid_t rawVfork() {
  const pid_t pid = ::vfork();
  if (pid == 0) {
    static char name[] = "/bin/true";
    static char* const arguments[] = {name, nullptr};
    ::execv(program, arguments);
    ::_exit(125);
  }
  return pid;
}

/// The floor of a start: nothing is prepared, held back or handed over.
void rawVforkAndWaitpid(benchmark::State& state) {
  const Ballast ballast(state);
  for (auto _ : state) awaitChild(state, rawVfork());
}
BENCHMARK(rawVforkAndWaitpid)->Arg(10)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);

#ifdef KES_BENCH_POCO
void pocoLaunchAndWait(benchmark::State& state) {
  const Ballast ballast(state);
  for (auto _ : state) expectSuccess(state, Poco::Process::launch(program, {}).wait());
}
BENCHMARK(pocoLaunchAndWait)->Arg(10)->Arg(1024)->UseRealTime()->Unit(benchmark::kMicrosecond);
#endif

// --- collecting

constexpr int manyChildren = 1000;

/// Children that wait until it is opened, then end.
class StartLine {
 public:
  StartLine() {
    if (::pipe(ends_) != 0) throw std::bad_alloc();
  }
  ~StartLine() {
    open();
    ::close(ends_[0]);
  }
  StartLine(const StartLine&) = delete;
  StartLine& operator=(const StartLine&) = delete;

  [[noreturn]] void runChild() const {
    ::close(ends_[1]);
    char nothing = 0;
    ::_exit(::read(ends_[0], &nothing, 1) == 0 ? 0 : 1);
  }
  void open() {
    if (ends_[1] != -1) ::close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  int ends_[2] = {-1, -1};
};

/// Forks children, and waits until all have ended; nobody has collected them.
std::vector<pid_t> endedChildren() {
  StartLine line;
  std::vector<pid_t> pids(manyChildren);
  for (pid_t& pid : pids) {
    pid = ::fork();
    if (pid == 0) line.runChild();
  }
  line.open();
  for (const pid_t pid : pids) {
    siginfo_t info;
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
  }
  return pids;
}

/// What this process has used so far, all its threads together, in seconds. Other work on the machine
/// does not show in it, while it would decide when the collector's thread gets to run.
double processorTime() {
  ::timespec used{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

void collect(benchmark::State& state) {
  Collector collector;
  kes::proc::Shepherd& shepherd = collector.shepherd();
  for (auto _ : state) {
    shepherd.condition().lock();
    const std::vector<pid_t> pids = endedChildren();
    for (const pid_t pid : pids) shepherd.addNoLock(pid, nullptr);
    const double start = processorTime();
    shepherd.condition().unlock();
    // Children are found in the order of their start: when the last one is collected, all are.
    expectSuccess(state, collector.wait(pids.back()));
    state.SetIterationTime(processorTime() - start);
    for (std::size_t i = 0; i + 1 < pids.size(); ++i) expectSuccess(state, collector.wait(pids[i]));
  }
}
BENCHMARK(collect)->UseManualTime()->Iterations(10)->Unit(benchmark::kMicrosecond);

void rawCollect(benchmark::State& state) {
  for (auto _ : state) {
    endedChildren();
    const double start = processorTime();
    for (int i = 0; i < manyChildren; ++i) {
      int status = -1;
      ::waitpid(-1, &status, 0);
      expectSuccess(state, status);
    }
    state.SetIterationTime(processorTime() - start);
  }
}
BENCHMARK(rawCollect)->UseManualTime()->Iterations(10)->Unit(benchmark::kMicrosecond);

void forkAndCollect(benchmark::State& state) {
  Collector collector;
  std::vector<pid_t> pids(manyChildren);
  for (auto _ : state) {
    for (pid_t& pid : pids) pid = collector.add([] { ::_exit(0); });
    for (const pid_t pid : pids) expectSuccess(state, collector.wait(pid));
  }
}
BENCHMARK(forkAndCollect)->UseRealTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void rawForkAndCollect(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < manyChildren; ++i) {
      if (::fork() == 0) ::_exit(0);
    }
    for (int i = 0; i < manyChildren; ++i) {
      int status = -1;
      ::waitpid(-1, &status, 0);
      expectSuccess(state, status);
    }
  }
}
BENCHMARK(rawForkAndCollect)->UseRealTime()->Iterations(5)->Unit(benchmark::kMillisecond);

/// A storm of programs: all started, then all collected.
void startAndCollect(benchmark::State& state) {
  std::list<kes::proc::Child> children;
  for (int i = 0; i < manyChildren; ++i) children.emplace_back(std::list<std::string>{program});
  for (auto _ : state) {
    for (kes::proc::Child& child : children) child.create();
    for (kes::proc::Child& child : children) expectSuccess(state, child.wait().status);
  }
  children.clear();
  kes::proc::Child::exit();
}
BENCHMARK(startAndCollect)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void rawStartAndCollect(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < manyChildren; ++i) rawVfork();
    for (int i = 0; i < manyChildren; ++i) awaitChild(state, -1);
  }
}
BENCHMARK(rawStartAndCollect)->UseRealTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// --- many who wait

using Clock = std::chrono::steady_clock;

/// From the moment when 500 children may end until 500 threads know it, each of its own child.
template <typename AnyCollector>
void waiters(benchmark::State& state) {
  constexpr int count = 500;
  AnyCollector collector;
  for (auto _ : state) {
    StartLine line;
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
      const pid_t pid = collector.add([&line] { line.runChild(); });
      threads.emplace_back([&collector, &waiting, pid] {
        ++waiting;
        collector.wait(pid);
      });
    }
    while (waiting != count) ::sched_yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // until the last ones wait, too
    const auto start = Clock::now();
    line.open();
    for (std::thread& thread : threads) thread.join();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

void manyWaiters(benchmark::State& state) { waiters<Collector>(state); }
BENCHMARK(manyWaiters)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

void rawManyWaiters(benchmark::State& state) { waiters<RawCollector>(state); }
BENCHMARK(rawManyWaiters)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
