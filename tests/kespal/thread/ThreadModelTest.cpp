// Threads against a model: random operations, by one thread with the outcome of each foretold, and by
// several at once with the outcome of each in the set that the life states allow.
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "kespal/ForkPending.h"
#include "kespal/thread/Thread.h"
#include "support/Eventually.h"
#include "support/Raised.h"

namespace kes::thread {
namespace {

using namespace test;

using T = BasicThread;

/// A body that waits until it is told to end, any number of times.
class Door {
 public:
  void letOneThrough() { ++tickets_; }
  void letAllThrough() { open_ = true; }
  void pass() {
    while (!open_) {
      int tickets = tickets_;
      if (tickets > 0 && tickets_.compare_exchange_strong(tickets, tickets - 1)) return;
      std::this_thread::yield();
    }
  }

 private:
  std::atomic<int> tickets_{0};
  std::atomic<bool> open_{false};
};

class ThreadModelTest : public testing::TestWithParam<unsigned> {};

// The model is the life-state table itself, of one joinable thread whose body is kept at a door.
TEST_P(ThreadModelTest, OneThreadDoesWhatTheStateTableForetells) {
  std::mt19937 random(GetParam());
  Door door;
  std::atomic<int> begun{0}, ended{0};
  std::function<void()> body = [&] {
    ++begun;
    door.pass();
    ++ended;
  };
  BasicThread thread([](void* argument) { (*static_cast<std::function<void()>*>(argument))(); }, "model",
                     &body,
                     /*detached=*/false, 0);
  T::State model = T::BURIED;
  int runs = 0;
  const auto expectNotBuried = [](const Raised& raised) { EXPECT_EQ(raised.line, 154); };
  for (int i = 0; i < 300; ++i) {
    switch (random() % 8) {
      case 0:
      case 1: {
        const Raised raised = raisedBy([&] { thread.run(); });
        if (model != T::BURIED) {
          expectNotBuried(raised);
          break;
        }
        EXPECT_EQ(raised, Raised());
        ++runs;
        ASSERT_TRUE(eventually([&] { return begun == runs; }));
        model = T::RUNNING;
        break;
      }
      case 2: {
        const Raised raised = raisedBy([&] { thread.create(); });
        if (model != T::BURIED) {
          expectNotBuried(raised);
        } else {
          model = T::CREATED;
        }
        break;
      }
      case 3:
        if (model == T::RUNNING) break;  // would wait for the door
        thread.join();
        model = T::BURIED;
        break;
      case 4:
        if (model != T::RUNNING) break;
        door.letOneThrough();
        ASSERT_TRUE(eventually([&] { return thread.state() == T::FINISHED; }));
        EXPECT_EQ(ended, begun);
        model = T::FINISHED;
        break;
      case 5:
        EXPECT_EQ(thread.prepareJoin(), model != T::BURIED);
        if (model == T::CREATED) model = T::FINISHED;
        break;
      case 6: {
        const Raised raised = raisedBy([&] { EXPECT_NE(thread.id().nativeId, 0u); });
        EXPECT_EQ(raised.line, model == T::BURIED || model == T::CREATED ? 145 : 0);
        break;
      }
      default: {
        ForkPending::m_pending = true;
        const Raised raised = raisedBy([&] { thread.create(); });
        ForkPending::m_pending = false;
        EXPECT_EQ(raised.line, model == T::BURIED ? 161 : 154);
      }
    }
    ASSERT_EQ(thread.state(), model) << "after step " << i;
  }
  door.letAllThrough();
  thread.join();
  EXPECT_EQ(begun, runs);
  EXPECT_EQ(ended, runs);
  EXPECT_EQ(T::activeThreads(), 0);
}

// Whatever several threads do to one thread object: each call returns or raises one of its few errors, each
// run() that succeeded runs the body once, and nothing is left in the end.
TEST_P(ThreadModelTest, OperationsFromSeveralThreadsKeepToTheStateTable) {
  std::atomic<int> runs{0}, begun{0};
  std::function<void()> body = [&] { ++begun; };
  BasicThread thread([](void* argument) { (*static_cast<std::function<void()>*>(argument))(); }, "model",
                     &body,
                     /*detached=*/false, 0);
  const auto work = [&](unsigned number) {
    std::mt19937 random(GetParam() * 100 + number);
    for (int i = 0; i < 250; ++i) {
      switch (random() % 7) {
        case 0:
        case 1: {
          const int line = raisedBy([&] { thread.run(); }).line;
          EXPECT_TRUE(line == 0 || line == 154 || line == 175) << line;
          if (line == 0) ++runs;
          break;
        }
        case 2:
        case 3:
          EXPECT_EQ(raisedBy([&] { thread.join(); }), Raised());
          break;
        case 4:
          thread.waitStartOver();
          break;
        case 5: {
          const int line = raisedBy([&] { thread.id(); }).line;
          EXPECT_TRUE(line == 0 || line == 145) << line;
          break;
        }
        default: {
          const T::State state = thread.state();
          EXPECT_TRUE(state >= T::CREATED && state <= T::BURIED) << state;
        }
      }
    }
  };
  std::vector<std::thread> workers;
  for (unsigned i = 0; i < 4; ++i) workers.emplace_back(work, i);
  for (std::thread& worker : workers) worker.join();
  thread.join();
  EXPECT_EQ(thread.state(), T::BURIED);
  EXPECT_EQ(begun, runs);
  EXPECT_EQ(T::activeThreads(), 0);
}

/// Notes what it is asked and does it, as quickly as it can.
class Worker : public CoopThread, public CoopThread::ICoopThread {
 public:
  explicit Worker(unsigned seed) : CoopThread("worker", nullptr, this), random_(seed) {}
  using CoopThread::thread;
  void thread(CoopThread&) override {
    while (request() != Return) {
      if (random_() % 2 == 0) {
        pause();
      } else {
        time::RealtimeClock deadline;
        deadline += time::Milliseconds(random_() % 3);
        sleep(deadline);
      }
      EXPECT_EQ(coopState(), Running);
    }
  }

 private:
  std::mt19937 random_;
};

class CoopModelTest : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override { time::ClockBase::init(); }
};

// Requests and looks from several threads; none of them waits for a state that the others may prevent for
// ever. In the end the thread obeys the last request.
TEST_P(CoopModelTest, RequestsFromSeveralThreadsAreObeyedInTheEnd) {
  Worker worker(GetParam());
  for (int round = 0; round < 5; ++round) {
    worker.run();
    const auto ask = [&](unsigned number) {
      std::mt19937 random(GetParam() * 100 + number);
      for (int i = 0; i < 300; ++i) {
        switch (random() % 4) {
          case 0:
            worker.requestRun();
            break;
          case 1:
            worker.requestPause();
            break;
          case 2:
            EXPECT_NE(worker.coopState(), CoopThread::Returned);
            break;
          default:
            EXPECT_NE(worker.request(), CoopThread::Return);
            EXPECT_EQ(raisedBy([&] { worker.pause(); }).line, 330);
        }
      }
    };
    std::vector<std::thread> askers;
    for (unsigned i = 0; i < 3; ++i) askers.emplace_back(ask, i);
    for (std::thread& asker : askers) asker.join();
    worker.requestPause();
    worker.waitPaused();
    worker.requestRun();
    std::thread returned([&] { worker.waitReturned(); });
    worker.requestReturn();
    returned.join();
    worker.join();
    EXPECT_EQ(worker.coopState(), CoopThread::Running);
  }
}

// Two threads play ping-pong with the worker: whoever asks also waits until he sees it done.
TEST_P(CoopModelTest, EveryRequestIsSeenByWhoWaitsForIt) {
  struct Obedient : CoopThread::ICoopThread {
    void thread(CoopThread& self) override {
      while (self.request() != CoopThread::Return) {
        self.pause();
        BasicThread::yield();
      }
    }
  } body;
  CoopThread worker("worker", &body);
  worker.run();
  std::mt19937 random(GetParam());
  for (int i = 0; i < 500; ++i) {
    if (random() % 2 == 0) {
      worker.requestPause();
      worker.waitPaused();
      EXPECT_EQ(worker.coopState(), CoopThread::Paused);
    } else {
      worker.requestRun();
      worker.waitRunning();
      EXPECT_EQ(worker.coopState(), CoopThread::Running);
    }
  }
  worker.requestReturn();
  worker.waitReturned();
  worker.join();
}

INSTANTIATE_TEST_SUITE_P(FixedSeeds, ThreadModelTest, testing::Values(1, 2, 3, 4, 5, 6));
INSTANTIATE_TEST_SUITE_P(FixedSeeds, CoopModelTest, testing::Values(1, 2, 3, 4));

}  // namespace
}  // namespace kes::thread
