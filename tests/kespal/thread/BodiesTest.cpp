// Bodies of thread objects that run elsewhere than on the thread that was made for them first.
#include "kespal/error/StaticError.h"
#include "kespal/thread/CoopThread.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

struct CountingCoop : CoopThread::ICoopThread {
  int calls = 0;
  CoopThread* seen = nullptr;
  void thread(CoopThread& self) override {
    ++calls;
    seen = &self;
  }
};

struct CountingBody : CppThread::IThread {
  int calls = 0;
  void thread(CppThread&) override { ++calls; }
};

TEST(BodiesTest, ACooperativeThreadThatIsCalledRunsItsBodyAndNotesThatItHasReturned) {
  CountingCoop body;
  CoopThread coop("coop", &body);
  EXPECT_EQ(coop.coopState(), CoopThread::Running);
  coop.thread(coop);
  EXPECT_EQ(body.calls, 1);
  EXPECT_EQ(body.seen, &coop);
  EXPECT_EQ(coop.coopState(), CoopThread::Returned);
  EXPECT_EQ(coop.state(), BasicThread::BURIED);
}

TEST(BodiesTest, ACooperativeThreadWithoutABodyRefusesToBeCalled) {
  CoopThread coop("coop");
  EXPECT_THROW(coop.thread(coop), UsageError);
  EXPECT_EQ(coop.coopState(), CoopThread::Running);
}

TEST(BodiesTest, AThreadObjectThatRanBeforeAForkRunsItsBodyInTheChildAsWell) {
  KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
  CountingBody body;
  CppThread thread("body", &body);
  thread.run();
  thread.join();
  const auto child = test::inChild([&] {
    thread.run();
    thread.join();
    return body.calls;
  });
  EXPECT_EQ(child.exitCode(), 2);
  EXPECT_EQ(body.calls, 1);
}

}  // namespace
}  // namespace kes::thread
