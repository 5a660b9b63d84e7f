// A handler in a forked child, where its thread does not exist.
#include <sys/wait.h>

#include <memory>

#include "kespal/signal/HandlerFixture.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Sanitizer.h"

namespace kes::signal {
namespace {

using namespace test;

class HandlerForkTest : public HandlerTest {
 protected:
  void SetUp() override {
    KES_SKIP_UNDER_THREAD_SANITIZER("does not follow threads that a fork left behind");
    HandlerTest::SetUp();
    handler_->add(SIGTERM, notifier_);
    handler_->start(SIGUSR1);
  }
  void TearDown() override {
    go_.open();
    handler_.reset();
    HandlerTest::TearDown();
  }

  /// Has the handler's thread call the notifier, under the handler's lock, until the test is over.
  void keepBusy() {
    notifier_.then = [this](int) {
      busy_.open();
      go_.pass();
    };
    send(SIGTERM);
    busy_.pass();
  }

  /// The exit code of a child that does not live long enough to be waited for if it hangs.
  static int exitOf(const std::function<int()>& body) {
    const ChildResult child = inChild([&] {
      ::alarm(120);
      return body();
    });
    EXPECT_EQ(child.signal(), 0) << child.err;
    return child.exitCode();
  }

  /// Uses the handler as a child may that was just forked; what it is told there.
  int useAnew() {
    go_.open();
    notifier_.then = {};
    notifier_.count = 0;
    handler_->stop();
    handler_->leaveSignals();
    Notifier second;
    handler_->add(SIGHUP, second);
    handler_->start(SIGUSR2);
    send(SIGTERM);
    send(SIGHUP);
    const bool told = notifier_.isTold(1) && second.isTold(1);
    handler_->remove(SIGTERM, notifier_);
    handler_->remove(SIGHUP, second);
    handler_.reset();
    return told ? 0 : 1;
  }

  Gate busy_, go_;
  Notifier notifier_;
  std::unique_ptr<Handler> handler_ = std::make_unique<Handler>();
};

TEST_F(HandlerForkTest, ItsThreadEndsInAChildThatANotifierForked) {
  KES_SKIP_UNDER_SANITIZERS("watches how a thread ends a process");
  std::atomic<pid_t> pid{0};
  notifier_.then = [&pid](int) {
    if (const pid_t fork = ::fork(); fork != 0) pid = fork;
  };
  send(SIGTERM);
  EXPECT_TRUE(eventually([&pid] { return pid != 0; }));
  int status = -1;
  EXPECT_TRUE(eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }));
  if (status == -1) ::kill(pid, SIGKILL);
  EXPECT_EQ(status, 0);
  expectDelivery(*handler_, SIGHUP);
}

TEST_F(HandlerForkTest, TheChildMayStopAndDestroyIt) {
  EXPECT_EQ(exitOf([&] {
              handler_->stop();
              handler_.reset();
              return 0;
            }),
            0);
  expectDelivery(*handler_, SIGINT);  // the parent's thread knows nothing of it
}

TEST_F(HandlerForkTest, TheChildMayDestroyItWhileTheParentsThreadHeldItsLock) {
  keepBusy();
  EXPECT_EQ(exitOf([&] {
              handler_.reset();
              return 0;
            }),
            0);
}

TEST_F(HandlerForkTest, TheChildMayStartItAnewWithTheRegistrationsThatItHad) {
  EXPECT_EQ(exitOf([&] { return useAnew(); }), 0);
}

TEST_F(HandlerForkTest, TheChildMayStartItAnewAlthoughTheParentsThreadHeldItsLock) {
  keepBusy();
  EXPECT_EQ(exitOf([&] { return useAnew(); }), 0);
}

TEST_F(HandlerForkTest, ThereIsNoThreadInTheChildToSendTheManagementSignalTo) {
  EXPECT_EQ(
      exitOf([&] { return raisedBy([&] { handler_->sendMgmSig(); }).type == "kes::RuntimeError" ? 0 : 1; }),
      0);
}

TEST_F(HandlerForkTest, ANotifierMayFork) {
  KES_SKIP_UNDER_SANITIZERS("watches how a thread ends a process");
  std::atomic<int> status{-1};
  notifier_.then = [&](int) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::alarm(120);
      ::_exit(useAnew());
    }
    int result = -1;
    ::waitpid(pid, &result, 0);
    status = result;
  };
  send(SIGTERM);
  ASSERT_TRUE(eventually([&] { return status != -1; }));
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace kes::signal
