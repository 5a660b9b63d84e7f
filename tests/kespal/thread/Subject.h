#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <memory>

#include "kespal/thread/BasicThread.h"
#include "kespal/thread/NativeThreads.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/Gate.h"

namespace kes::test {

using thread::BasicThread;

/// The states of a thread; a detached one that is held, and one that has ended, are cases of their own.
enum class Life {
  Buried,
  Created,
  Starting,
  Running,
  Finished,
  HeldDetached,
  RunningDetached,
  EndedDetached
};

/// A thread that is brought to a state and kept there until its gates are opened.
class Subject {
 public:
  explicit Subject(Life life) : life_(life), thread_(makeThread()) { bring(); }
  ~Subject() { end(); }

  BasicThread& thread() { return *thread_; }
  int ran() const { return ran_; }
  void start() { start_.open(); }
  /// Lets the thread go, destroys its object, and waits until nothing is left of it.
  void end() {
    start_.open();
    body_.open();
    thread_.reset();
    EXPECT_TRUE(aloneInTheEnd());
  }
  void destroy() { thread_.reset(); }
  void openAll() {
    start_.open();
    body_.open();
  }

 private:
  std::unique_ptr<BasicThread> makeThread() {
    return std::make_unique<BasicThread>(&body, "subject", this, life_ >= Life::HeldDetached, 0);
  }

  static void body(void* argument) {
    auto& subject = *static_cast<Subject*>(argument);
    ++subject.ran_;
    subject.body_.pass();
    ::pthread_testcancel();
  }

  void bring() {
    switch (life_) {
      case Life::Buried:
        return;
      case Life::Created:
      case Life::HeldDetached:
        return thread_->create();
      case Life::Starting:
        // The native thread is stopped before it looks for the go.
        hold_ = std::make_unique<After>(Call::pthread_setname_np, [this] { start_.pass(); });
        return thread_->run();
      case Life::Running:
      case Life::RunningDetached:
        thread_->run();
        ASSERT_TRUE(eventually([&] { return ran() == 1; }));
        return;
      case Life::Finished:
      case Life::EndedDetached:
        openAll();
        thread_->run();
        ASSERT_TRUE(eventually([&] { return ran() == 1 && BasicThread::activeThreads() == 0; }));
        // The count is taken down just before the last step is over.
        thread_->waitStartOver();
        ASSERT_TRUE(eventually(
            [&] { return life_ == Life::EndedDetached || thread_->state() == BasicThread::FINISHED; }));
        return;
    }
  }

  const Life life_;
  Gate start_;
  Gate body_;
  std::atomic<int> ran_{0};
  std::unique_ptr<After> hold_;
  std::unique_ptr<BasicThread> thread_;
};

}  // namespace kes::test
