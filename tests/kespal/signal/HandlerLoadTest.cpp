// The handler when much happens at once.
#include <random>
#include <thread>
#include <vector>

#include "kespal/error/StaticError.h"
#include "kespal/signal/HandlerFixture.h"
#include "kespal/thread/Thread.h"

namespace kes::signal {
namespace {

using namespace test;

TEST_F(HandlerTest, AStormOfSignalsIsDeliveredAndLosesNoneThatWasWaitedFor) {
  Handler handler;
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  // A signal that is pending already is not queued again, so each is awaited before the next.
  for (int i = 1; i <= 5000; ++i) {
    send(SIGTERM);
    while (notifier.count < i) std::this_thread::yield();
  }
  handler.stop();
  EXPECT_EQ(notifier.count, 5000);
}

TEST_F(HandlerTest, ManyThreadsMaySendAtOnce) {
  Handler handler;
  Notifier notifier;
  handler.add(SIGTERM, notifier);
  handler.start(SIGUSR1);
  std::vector<std::thread> senders;
  for (int i = 0; i < 4; ++i) {
    senders.emplace_back([] {
      for (int j = 0; j < 2000; ++j) send(SIGTERM);
    });
  }
  for (std::thread& sender : senders) sender.join();
  EXPECT_TRUE(eventually([&] { return notifier.count >= 1; }));
  // Whatever came before, the next one gets through.
  const int before = notifier.count;
  EXPECT_TRUE(eventually([&] {
    send(SIGTERM);
    return notifier.count > before;
  }));
  handler.stop();
  EXPECT_LE(before, 8000);
}

class HandlerModelTest : public HandlerTest, public testing::WithParamInterface<unsigned> {};

// Each thread owns one signal and changes its registration at random while signals of all kinds arrive; it
// knows what each of its calls has to do.
TEST_P(HandlerModelTest, RegistrationsChangeFromSeveralThreadsWhileSignalsArrive) {
  constexpr int signals[] = {SIGTERM, SIGINT, SIGHUP};
  Handler handler;
  handler.start(SIGUSR1);
  const auto work = [&](unsigned number) {
    std::mt19937 random(GetParam() * 10 + number);
    const int signal = signals[number];
    Notifier notifiers[2];
    Notifier* registered = nullptr;
    for (int i = 0; i < 400; ++i) {
      Notifier& notifier = notifiers[random() % 2];
      switch (random() % 4) {
        case 0:
          handler.add(signal, notifier);
          if (registered == nullptr) registered = &notifier;
          break;
        case 1:
          if (registered == &notifier) {
            handler.remove(signal, notifier);
            registered = nullptr;
          } else {
            EXPECT_EQ(removing(handler, signal, notifier), notRegistered);
          }
          break;
        case 2:
          send(signal);
          break;
        default:
          if (registered != nullptr) {
            const int before = registered->count;
            EXPECT_TRUE(eventually([&] {
              send(signal);
              return registered->count > before;
            }));
          }
      }
    }
    if (registered != nullptr) handler.remove(signal, *registered);
  };
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 3; ++i) threads.emplace_back(work, i);
  for (std::thread& thread : threads) thread.join();
  handler.stop();
}

INSTANTIATE_TEST_SUITE_P(FixedSeeds, HandlerModelTest, testing::Values(1, 2, 3, 4));

TEST_F(HandlerTest, ItCanBeStartedAndStoppedFromSeveralThreadsAtOnce) {
  Handler handler;
  const auto work = [&] {
    for (int i = 0; i < 100; ++i) {
      try {
        handler.start(SIGUSR1);
      } catch (const UsageError&) {
        // another thread started it
      }
      handler.stop();
    }
  };
  std::thread first(work), second(work), third(work);
  first.join(), second.join(), third.join();
  handler.stop();
  EXPECT_EQ(thread::BasicThread::activeThreads(), 0);
}

}  // namespace
}  // namespace kes::signal
