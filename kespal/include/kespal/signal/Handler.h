#pragma once

#include <csignal>
#include <map>
#include <set>

#include "kespal/signal/Set.h"
#include "kespal/thread/CppThread.h"
#include "kespal/thread/Lock.h"

namespace kes::signal {

/// Takes signals in a thread of its own and tells whoever registered for them, in ordinary thread context.
/// Any thread may call. Every thread of the process has to block the signals that are registered, and the
/// management signal, which ends the wait when something has changed; the runtime object sees to that.
/// Misuse raises UsageError, a failing system call OsError.
class Handler : public thread::CppThread::IThread, NoCopy {
 public:
  /// Is told about signals. Not owned; must stay alive while registered.
  class INotify {
   public:
    virtual ~INotify() = default;
    /// Called on the handler's thread, which holds the handler's lock: must not call the handler. `info` is
    /// all zeros. An exception is reported on standard error, and the next notifier is called.
    virtual void notify(const int& signal, const siginfo_t& info) = 0;
  };

  Handler();
  /// Stops the thread if it runs; one that cannot be woken is cancelled. Not to be called on that thread.
  virtual ~Handler();  // NOLINT(bugprone-exception-escape): ends the program then

  /// Starts the thread; notifiers may have been added before. `mgmSignal` is a signal that nothing else in
  /// the process uses. Raises what run() of a thread raises, UsageError for a signal that cannot be used.
  void start(const int& mgmSignal);
  /// Ends the thread and waits for it. Does nothing when it was not started.
  void stop();

  /// Registers the one notifier of a signal, and makes sure that the signal is not ignored. Does nothing
  /// when the signal is waited for already. Signals above 32 are registered but never waited for. Raises
  /// OsError (EINVAL) for a number that is no signal or that nobody may handle.
  void add(const int& signal, INotify& notifier);
  /// Takes a registration back. Raises UsageError when there is none.
  void remove(const int& signal, INotify& notifier);

  /// Wakes the thread so that it looks at its set again. Raises OsError, RuntimeError without a thread.
  void sendMgmSig();

  /// The body of the thread.
  void thread(thread::CppThread& self) override;

 private:
  void handle(const int& signal, const siginfo_t& info);
  bool nextWaitSet(Set& set);

  thread::CppThread worker_;
  bool running_ = false;
  Set waitSet_;
  int mgmSignal_ = 0;
  std::map<int, std::multiset<INotify*>> notifiers_;
  thread::Lock lock_{thread::Normal};  // guards the four above
};

}  // namespace kes::signal
