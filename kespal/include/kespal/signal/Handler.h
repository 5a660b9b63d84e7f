#pragma once  // since 0.1

#include <csignal>
#include <memory>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/signal/Set.h"
#include "kespal/thread/CppThread.h"

KES_EXPORT_BEGIN

namespace kes::signal {

/// Takes signals in a thread of its own and tells whoever registered for them, in ordinary thread context.
/// Any thread may call. Every thread of the process has to block the signals that are registered, and the
/// management signal, which ends the wait when something has changed; the runtime object sees to that.
/// Several handlers share a process if each signal is one's only, the management signals included. The
/// handler's own thread blocks whatever is sent to the process, and so does a thread that a notifier starts.
/// In a forked child the handler is stopped, with the same registrations, and can be started anew. Misuse
/// raises UsageError, a failing system call OsError.
class Handler : public thread::CppThread::IThread, NoCopy {
 public:
  /// Is told about signals. Not owned; must stay alive while registered.
  class INotify {
   public:
    virtual ~INotify() = default;
    /// Called on the handler's thread, which holds the handler's lock: must not call the handler, except
    /// leaveSignals(). `info` is all zeros. An exception is reported on standard error, a kes::Exception with
    /// its text and any other as an unknown one, and the next notifier is called.
    virtual void notify(const int& signal, const siginfo_t& info) = 0;
  };

  Handler();
  /// Stops the thread if it runs; one that cannot be woken is cancelled. Not to be called on that thread.
  /// Leaves the thread of a parent process alone.
  virtual ~Handler();  // NOLINT(bugprone-exception-escape): ends the program then

  /// Starts the thread; notifiers may have been added before. `mgmSignal` is a signal that nothing else in
  /// the process uses; it is ignored no longer. Raises what run() of a thread raises: UsageError when the
  /// thread runs already or its end is being waited for, RuntimeError while a fork is pending, OsError EAGAIN
  /// when the system refuses a thread. UsageError, too, for a signal that nobody may handle (SIGKILL,
  /// SIGSTOP) or wait for (not 1 to 32, or kept by the C library); OsError when the calling thread's mask
  /// cannot be changed.
  void start(const int& mgmSignal);
  /// Ends the thread and waits for it. Does nothing when it was not started, or by a parent process. Raises
  /// OsError: EDEADLK on the thread itself, which ends all the same, and any other code of pthread_kill.
  void stop();
  /// Tells the thread to take no signal from now on, and waits for nothing: neither for the thread nor for
  /// the lock that a notifier is called under. A signal that it takes in this moment goes back to the
  /// process. stop() is still to be called. Raises OsError when the thread cannot be woken.
  void leaveSignals();

  /// Registers the one notifier of a signal, and gives the signal its default disposition, so that it is not
  /// ignored. Does nothing when the signal is waited for already. Signals above 32 are registered but never
  /// waited for. Raises OsError: EINVAL for a number that is no signal or that nobody may handle, any code of
  /// pthread_kill when the thread cannot be woken; the registration is made then.
  void add(const int& signal, INotify& notifier);
  /// Takes a registration back; the disposition stays. Raises UsageError when there is none, OsError as
  /// add().
  void remove(const int& signal, INotify& notifier);

  /// Wakes the thread so that it looks at its set again. Raises OsError with the code of pthread_kill,
  /// RuntimeError when no thread was started.
  void sendMgmSig();

  /// The body of the thread.
  void thread(thread::CppThread& self) override;

 private:
  struct KES_HIDDEN Shared;

  const std::unique_ptr<thread::PerProcess<Shared>> shared_;
};

}  // namespace kes::signal

KES_EXPORT_END
