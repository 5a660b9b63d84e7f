// Locks and conditions: this library, the pthread calls under it, and the standard library.
//
// Goals, as ratios of medians of one run (--benchmark_repetitions=7):
//   lock/KIND          at most 1.05 x rawLock/KIND in a process with threads, 1.2 x with one
//   guard              at most 1.05 x rawLock/normal with threads, 1.25 x with one
//   contended          at most 1.15 x rawContended, and never more than 1.05 x stdContended
//   pingPong           at most 1.05 x rawPingPong; both threads on one processor, as waking another one
//                      hides all else. Poco::Event and QWaitCondition: at least 1.7 x as long.
//   overshoot          at most 1.05 x rawOvershoot, and no wait ends early
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <ctime>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"

#ifdef KES_BENCH_POCO
#include <Poco/Event.h>
#endif
#ifdef KES_BENCH_QT
#include <QMutex>
#include <QWaitCondition>
#endif

namespace {

using kes::thread::Condition;
using kes::thread::Lock;
using kes::thread::LockGuardT;
using kes::thread::LockKind;

class RawLock {
 public:
  explicit RawLock(LockKind kind) {
    ::pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    const int types[] = {PTHREAD_MUTEX_RECURSIVE, PTHREAD_MUTEX_NORMAL, PTHREAD_MUTEX_ERRORCHECK};
    ::pthread_mutexattr_settype(&attributes, types[kind]);
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
  }
  ~RawLock() { ::pthread_mutex_destroy(&mutex); }
  void lock() { ::pthread_mutex_lock(&mutex); }
  void unlock() { ::pthread_mutex_unlock(&mutex); }

  ::pthread_mutex_t mutex;
};

struct StdLock : std::mutex {
  explicit StdLock(LockKind) {}
};

/// A second thread that does nothing: its presence alone makes the C library lock in earnest.
class Companion {
 public:
  explicit Companion(bool wanted) {
    leave_.lock();
    if (wanted) thread_ = std::thread([this] { leave_.lock(); });
  }
  ~Companion() {
    leave_.unlock();
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::mutex leave_;
  std::thread thread_;
};

template <typename L>
void lockAndUnlock(benchmark::State& state) {
  const Companion companion(state.range(1) != 0);
  L lock(static_cast<LockKind>(state.range(0)));
  for (auto _ : state) {
    lock.lock();
    benchmark::ClobberMemory();
    lock.unlock();
  }
}
BENCHMARK(lockAndUnlock<Lock>)->Name("lock")->ArgNames({"kind", "threads"})->ArgsProduct({{0, 1, 2}, {0, 1}});
BENCHMARK(lockAndUnlock<RawLock>)
    ->Name("rawLock")
    ->ArgNames({"kind", "threads"})
    ->ArgsProduct({{0, 1, 2}, {0, 1}});
BENCHMARK(lockAndUnlock<StdLock>)->Name("stdLock")->ArgNames({"kind", "threads"})->ArgsProduct({{1}, {0, 1}});

void guard(benchmark::State& state) {
  const Companion companion(state.range(0) != 0);
  const Lock lock(kes::thread::Normal);
  for (auto _ : state) {
    const LockGuardT<Lock> held(lock);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(guard)->ArgName("threads")->Arg(0)->Arg(1);

template <typename L>
void contend(benchmark::State& state) {
  static L lock(kes::thread::Normal);
  static long counter = 0;
  for (auto _ : state) {
    lock.lock();
    benchmark::DoNotOptimize(++counter);
    lock.unlock();
  }
}
BENCHMARK(contend<Lock>)->Name("contended")->Threads(2)->UseRealTime();
BENCHMARK(contend<RawLock>)->Name("rawContended")->Threads(2)->UseRealTime();
BENCHMARK(contend<StdLock>)->Name("stdContended")->Threads(2)->UseRealTime();

// --- hand-overs: two threads on one processor take turns

void stayOnOneProcessor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  ::sched_setaffinity(0, sizeof one, &one);
}

struct Turns {
  void wait(int mine) {
    const LockGuardT<Lock> held(lock);
    while (turn != mine) conditions[mine].wait();
  }
  void give(int other) {
    {
      const LockGuardT<Lock> held(lock);
      turn = other;
    }
    conditions[other].signal();
  }

  Lock lock{kes::thread::Normal};
  Condition conditions[2]{Condition(lock), Condition(lock)};
  int turn = 0;
};

struct RawTurns {
  void wait(int mine) {
    lock.lock();
    while (turn != mine) ::pthread_cond_wait(&conditions[mine], &lock.mutex);
    lock.unlock();
  }
  void give(int other) {
    lock.lock();
    turn = other;
    lock.unlock();
    ::pthread_cond_signal(&conditions[other]);
  }

  RawLock lock{kes::thread::Normal};
  ::pthread_cond_t conditions[2] = {PTHREAD_COND_INITIALIZER, PTHREAD_COND_INITIALIZER};
  int turn = 0;
};

struct StdTurns {
  void wait(int mine) {
    std::unique_lock<std::mutex> held(lock);
    conditions[mine].wait(held, [&] { return turn == mine; });
  }
  void give(int other) {
    {
      const std::lock_guard<std::mutex> held(lock);
      turn = other;
    }
    conditions[other].notify_one();
  }

  std::mutex lock;
  std::condition_variable conditions[2];
  int turn = 0;
};

#ifdef KES_BENCH_POCO
struct PocoTurns {
  void wait(int mine) { events[mine].wait(); }
  void give(int other) { events[other].set(); }
  PocoTurns() { events[0].set(); }
  Poco::Event events[2];
};
#endif

#ifdef KES_BENCH_QT
struct QtTurns {
  void wait(int mine) {
    const QMutexLocker held(&lock);
    while (turn != mine) conditions[mine].wait(&lock);
  }
  void give(int other) {
    {
      const QMutexLocker held(&lock);
      turn = other;
    }
    conditions[other].wakeOne();
  }

  QMutex lock;
  QWaitCondition conditions[2];
  int turn = 0;
};
#endif

template <typename T>
void pingPong(benchmark::State& state) {
  cpu_set_t before;
  ::sched_getaffinity(0, sizeof before, &before);
  stayOnOneProcessor();
  T turns;
  std::atomic<bool> over{false};
  std::thread other([&] {
    for (turns.wait(1); !over; turns.wait(1)) turns.give(0);
  });
  for (auto _ : state) {
    turns.wait(0);
    turns.give(1);
  }
  turns.wait(0);
  over = true;
  turns.give(1);
  other.join();
  ::sched_setaffinity(0, sizeof before, &before);
}
BENCHMARK(pingPong<Turns>)->Name("pingPong")->UseRealTime();
BENCHMARK(pingPong<RawTurns>)->Name("rawPingPong")->UseRealTime();
BENCHMARK(pingPong<StdTurns>)->Name("stdPingPong")->UseRealTime();
#ifdef KES_BENCH_POCO
BENCHMARK(pingPong<PocoTurns>)->Name("pocoPingPong")->UseRealTime();
#endif
#ifdef KES_BENCH_QT
BENCHMARK(pingPong<QtTurns>)->Name("qtPingPong")->UseRealTime();
#endif

// --- how late a timed wait of a millisecond comes back

double secondsSince(const ::timespec& moment) {
  ::timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec - moment.tv_sec) +
         static_cast<double>(now.tv_nsec - moment.tv_nsec) / 1e9;
}

void overshoot(benchmark::State& state) {
  kes::time::ClockBase::init();
  const Condition condition;
  const LockGuardT<Condition> held(condition);
  for (auto _ : state) {
    kes::time::RealtimeClock deadline;
    deadline += kes::time::Milliseconds(1);
    while (condition.waitTimed(deadline)) {
    }
    const double late = secondsSince(deadline.toTimespec());
    if (late < 0) state.SkipWithError("a wait ended early");
    state.SetIterationTime(late);
  }
}
BENCHMARK(overshoot)->UseManualTime()->Iterations(200);

void rawOvershoot(benchmark::State& state) {
  RawLock lock(kes::thread::Normal);
  ::pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  lock.lock();
  for (auto _ : state) {
    ::timespec deadline;
    ::clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_nsec += 1'000'000;
    deadline.tv_sec += deadline.tv_nsec / 1'000'000'000;
    deadline.tv_nsec %= 1'000'000'000;
    while (::pthread_cond_timedwait(&condition, &lock.mutex, &deadline) == 0) {
    }
    state.SetIterationTime(secondsSince(deadline));
  }
  lock.unlock();
}
BENCHMARK(rawOvershoot)->UseManualTime()->Iterations(200);

}  // namespace
