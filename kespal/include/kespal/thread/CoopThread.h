#pragma once  // since 0.1

#include <memory>
#include <string>

#include "kespal/Export.h"
#include "kespal/thread/CppThread.h"
#include "kespal/time/Clock.h"

KES_EXPORT_BEGIN

namespace kes::thread {

/// A thread that can be asked to pause, to run on and to return, and that answers at points of its own
/// choosing: its body calls pause() or sleep() there, and returns when request() is Return. Requests may
/// come from any thread, also before run(); burying the thread clears them, and so does a fork in the child.
/// A derived class that is its own body asks it to return and joins the thread in its destructor. Misuse
/// raises UsageError; the other errors are those of BasicThread.
class CoopThread : public CppThread, public CppThread::IThread {
 public:
  /// What the thread does.
  enum CoopState : int { Running = 0, Returned = 1, Paused = 2 };
  /// What it was asked to do last.
  enum Request : int { Run = 0, Return = 1, Pause = 2 };

  /// The body of a cooperative thread.
  class ICoopThread {
   public:
    /// The body. Called on the native thread; see CppThread::IThread.
    virtual void thread(CoopThread& self) = 0;

   protected:
    ~ICoopThread() = default;
  };

  /// A thread that will run `user`. Without a body run() raises UsageError.
  explicit CoopThread(const std::string& name, ICoopThread* user = nullptr)
      : CoopThread(name, user, nullptr) {}
  ~CoopThread() override;

  bool isCoopThread() const override { return true; }  ///< true
  /// Runs the body and notes that it has returned. Called by the native thread.
  void thread(CppThread& self) override;

  /// Each asks, and waits for nothing; a thread that sleeps or pauses wakes up.
  void requestRun();
  void requestReturn();  ///< see requestRun()
  /// Wakes nobody: a thread that sleeps sleeps on.
  void requestPause();

  /// Each waits until the thread does what the name says, without limit. UsageError on the thread itself. For
  /// a buried thread waitReturned() returns at once, and the other two raise UsageError; they do so, too,
  /// when the body has returned, also in a run that was buried meanwhile. RuntimeError for a thread that is
  /// held.
  void waitRunning() const;
  void waitPaused() const;    ///< see waitRunning()
  void waitReturned() const;  ///< see waitRunning()

  /// Stays paused while that is the request. For the thread itself only: UsageError on another one,
  /// RuntimeError when there is none.
  void pause();
  /// Stays paused until the deadline, while the request is Run. True when another request ended the sleep,
  /// false when the deadline passed or another request was there already. For the thread itself only, as
  /// pause(). The deadline is of the calendar clock, and moves when that is set.
  bool sleep(const time::RealtimeClock& deadline);

  Request request() const;      ///< Run when buried
  CoopState coopState() const;  ///< Running when buried

 protected:
  /// For a derived object that is a body itself: `self` is run when there is no `user`.
  CoopThread(const std::string& name, ICoopThread* user, ICoopThread* self);

  /// Asks for a pause unless something else than Run is asked for: a thread that wants to pause for lack
  /// of work must not overwrite the request to return. True when the request is Pause now.
  bool requestPauseIfRun();

 private:
  struct KES_HIDDEN Control;

  std::shared_ptr<Control> control() const;
  void ask(Request request);
};

}  // namespace kes::thread

KES_EXPORT_END
