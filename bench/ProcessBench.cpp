// Collecting many children: this library, and the calls under it. A raw collector does by hand what this
// library's does: one thread in wait(), statuses filed under their ids. StartBench.cpp has the starts of
// programs, and peers.
//
// Goals, as ratios of medians of one run (--benchmark_repetitions=7):
//   forkAndCollect      at most 1.9 x rawForkAndCollect
//   manyWaiters         at most 1.2 x rawManyWaiters
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "kespal/proc/Shepherd.h"

namespace {

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

 private:
  kes::proc::Shepherd shepherd_;
};

void expectSuccess(benchmark::State& state, int status) {
  if (status != 0) state.SkipWithError("the program did not succeed");
}

// --- collecting

constexpr int manyChildren = 1000;

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

// --- many who wait

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
