// The life of a thread, and the way of a signal: this library, the system's calls under it, and peers.
// Everything stays on one processor, as waking another one hides all else.
//
// Goals, as ratios of medians of one run (--benchmark_repetitions=7):
//   runAndJoin   at most 1.20 x rawCreateAndJoin; Poco about 1.5, Qt about 2.5
//   notify       at most 1.05 x rawSigwait; asio about 1.9
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>
#include <csignal>

#include <atomic>
#include <thread>

#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/thread/Thread.h"

#ifdef KES_BENCH_POCO
#include <Poco/Runnable.h>
#include <Poco/Thread.h>
#endif
#ifdef KES_BENCH_QT
#include <QThread>
#endif
#ifdef KES_BENCH_ASIO
#include <boost/asio.hpp>
#endif

namespace {

/// Keeps the process on one processor while it lives.
class OneProcessor {
 public:
  OneProcessor() {
    ::sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ::sched_setaffinity(0, sizeof one, &one);
  }
  ~OneProcessor() { ::sched_setaffinity(0, sizeof before_, &before_); }

 private:
  cpu_set_t before_;
};

// --- create and join

void runAndJoin(benchmark::State& state) {
  const OneProcessor here;
  kes::thread::BasicThread thread([](void*) {}, "bench", nullptr, /*detached=*/false, 0);
  for (auto _ : state) {
    thread.run();
    thread.join();
  }
}
BENCHMARK(runAndJoin)->UseRealTime();

void rawCreateAndJoin(benchmark::State& state) {
  const OneProcessor here;
  ::pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, 524288);
  for (auto _ : state) {
    ::pthread_t thread;
    ::pthread_create(
        &thread, &attributes, [](void*) -> void* { return nullptr; }, nullptr);
    ::pthread_join(thread, nullptr);
  }
  ::pthread_attr_destroy(&attributes);
}
BENCHMARK(rawCreateAndJoin)->UseRealTime();

void stdCreateAndJoin(benchmark::State& state) {
  const OneProcessor here;
  for (auto _ : state) std::thread([] {}).join();
}
BENCHMARK(stdCreateAndJoin)->UseRealTime();

#ifdef KES_BENCH_POCO
void pocoStartAndJoin(benchmark::State& state) {
  const OneProcessor here;
  struct Nothing : Poco::Runnable {
    void run() override {}
  } nothing;
  for (auto _ : state) {
    Poco::Thread thread;
    thread.start(nothing);
    thread.join();
  }
}
BENCHMARK(pocoStartAndJoin)->UseRealTime();
#endif

#ifdef KES_BENCH_QT
void qtStartAndWait(benchmark::State& state) {
  const OneProcessor here;
  struct Nothing : QThread {
    void run() override {}
  };
  for (auto _ : state) {
    Nothing thread;
    thread.start();
    thread.wait();
  }
}
BENCHMARK(qtStartAndWait)->UseRealTime();
#endif

// --- from kill() to the call

/// Waits without taking the processor from who is to run next.
void awaitValue(const std::atomic<long>& value, long wanted) {
  while (value.load(std::memory_order_acquire) < wanted) ::sched_yield();
}

class Counter : public kes::signal::Handler::INotify {
 public:
  void notify(const int&, const siginfo_t&) override { count.fetch_add(1, std::memory_order_release); }
  std::atomic<long> count{0};
};

void notify(benchmark::State& state) {
  const OneProcessor here;
  kes::signal::Mask::call({SIGUSR1, SIGUSR2}, SIG_BLOCK);
  Counter counter;
  kes::signal::Handler handler;
  handler.add(SIGUSR2, counter);
  handler.start(SIGUSR1);
  long sent = 0;
  for (auto _ : state) {
    ::kill(::getpid(), SIGUSR2);
    awaitValue(counter.count, ++sent);
  }
  handler.stop();
}
BENCHMARK(notify)->UseRealTime();

void rawSigwait(benchmark::State& state) {
  const OneProcessor here;
  kes::signal::Mask::call({SIGUSR2}, SIG_BLOCK);
  std::atomic<long> count{0};
  std::atomic<bool> over{false};
  std::thread waiter([&] {
    const kes::signal::Set set{SIGUSR2};
    for (int signal = 0; !over; count.fetch_add(1, std::memory_order_release))
      ::sigwait(&set.native(), &signal);
  });
  long sent = 0;
  for (auto _ : state) {
    ::kill(::getpid(), SIGUSR2);
    awaitValue(count, ++sent);
  }
  over = true;
  ::pthread_kill(waiter.native_handle(), SIGUSR2);
  waiter.join();
}
BENCHMARK(rawSigwait)->UseRealTime();

#ifdef KES_BENCH_ASIO
void asioSignalSet(benchmark::State& state) {
  const OneProcessor here;
  boost::asio::io_context context;
  boost::asio::signal_set signals(context, SIGALRM);
  std::atomic<long> count{0};
  std::function<void()> wait = [&] {
    signals.async_wait([&](const boost::system::error_code& error, int) {
      if (error) return;
      count.fetch_add(1, std::memory_order_release);
      wait();
    });
  };
  wait();
  std::thread runner([&] { context.run(); });
  long sent = 0;
  for (auto _ : state) {
    ::kill(::getpid(), SIGALRM);
    awaitValue(count, ++sent);
  }
  context.stop();
  runner.join();
}
BENCHMARK(asioSignalSet)->UseRealTime();
#endif

}  // namespace
