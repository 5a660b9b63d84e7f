#pragma once  // since 0.1

#include <cstdint>
#include <memory>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"
#include "kespal/time/Milliseconds.h"

KES_EXPORT_BEGIN

namespace kes::proc {

class Child;
class KES_HIDDEN Flock;

/// Which children a collector reaps.
enum class Reaping : std::uint8_t {
  EveryChild,  ///< every child of the process: no zombie is left, whoever has started it
  Registered   ///< those that were registered; for programs whose parts start children in other ways
};

/// The process collector: the one place that reaps children. While children are registered its thread waits
/// for ANY child of this process. One that nobody registered (of popen(), system(), a fork of your own) is
/// reaped, reported on standard error, and its status lost: whoever started it then gets ECHILD from
/// waitpid(). A program that needs such statuses starts those programs by Child, too, or while no child
/// is registered, or has a collector of Reaping::Registered, which leaves them alone. Any thread may call.
///
/// A collector of Reaping::Registered holds two descriptors and, on Linux, one more for each child that runs,
/// all close-on-exec; a plain fork has copies of them. When the system has none left, or cannot watch a child
/// by one (Linux before 5.4), it asks for its children every 20 ms until no child runs any more. It makes no
/// child to be stopped by.
///
/// Lock order: the collector's lock, then its thread's own, never the other way round. A collector belongs
/// to the process that made it: in a fork of that process its end and stop() do nothing, and start() begins
/// anew without children.
class Shepherd final : public ::kes::thread::CoopThread::ICoopThread, NoCopy {
 public:
  using Guard = ::kes::thread::LockGuardT<::kes::thread::Condition>;  ///< holds the collector's lock

  /// OsError (ENOMEM, EAGAIN) when the system has no lock or condition left.
  Shepherd();
  /// The same, and OsError (EMFILE, ENFILE, ENOMEM) for what Reaping::Registered needs.
  explicit Shepherd(Reaping reaping);
  /// Stops it, if nobody did.
  ~Shepherd();  // NOLINT(bugprone-exception-escape): ends the program then

  /// Starts the thread; also again after stop(), with the children that were left. A SIGCHLD that the process
  /// ignores (or SA_NOCLDWAIT) is set to its default first, for good: otherwise children would vanish
  /// without a status. UsageError when it runs already; OsError (EAGAIN) when the system refuses a thread;
  /// RuntimeError while a fork is pending.
  void start();
  /// Ends the thread within moments, even while children run, which are left alone; waits for a notification
  /// that runs. Does nothing when there is no thread, and is not cancelled. Sends whoever waits away with a
  /// RuntimeError. Only if the system refuses a process at that moment, the end of the next child is waited
  /// for. An error is reported on standard error and goes no further.
  void stop();

  /// The condition whose lock has to be held from before a fork until the child is registered, so that the
  /// child cannot be reaped unknown.
  const ::kes::thread::Condition& condition() const noexcept;
  /// Registers a child that was just forked, with the lock held; `child`, when not null, is told its end.
  /// The memory for it was taken before; std::bad_alloc only when there was none for two children on end.
  void addNoLock(const int& pid, Child* child);

  /// Waits for a child's end, without limit when `timeout` is null or longer than a clock can tell; not at
  /// all when it is negative. True: `status` is its wait status, which is forgotten here. False: the time has
  /// passed. Of several children that had the id, the last one is meant. An id that nobody registered yet is
  /// waited for, too. RuntimeError on the collector's own thread when the status is not there, when the
  /// collector does not run, and when it ends meanwhile; OsError (EINVAL) when the clocks were not made
  /// ready (ClockBase::init(), KesPal).
  bool wait(const int& pid, int& status, const time::Milliseconds* timeout = nullptr);

  /// Calls the notification of a child that was reaped, if it has one, after the lock was released through
  /// `guard`. An exception from it is reported on standard error. Called by the collector.
  void checkCB(const int& pid, Guard& guard);

  /// The collector's body.
  void thread(::kes::thread::CoopThread& self) override;

 private:
  friend class Flock;

  const Reaping reaping_;
  std::shared_ptr<Flock> flock_;
};

}  // namespace kes::proc

KES_EXPORT_END
