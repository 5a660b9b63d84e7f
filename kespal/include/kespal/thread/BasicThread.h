#pragma once  // since 0.1

#include <pthread.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"

KES_EXPORT_BEGIN

namespace kes::thread {

class KES_HIDDEN Run;
template <typename Value>
class KES_HIDDEN PerProcess;

/// One thread of the system with an explicit life. The object is made buried, run() starts the thread, and
/// join() buries it again, after which it can be started anew. Any thread may call any operation. A
/// detached thread may outlive its object; of a joinable one, everything that its body uses must outlive
/// the body: a derived class that is used by its body ends the thread in its own destructor, as the base's
/// comes too late. In a forked child the object is buried; the parent's thread is not its business. Misuse
/// raises UsageError, a failing system call OsError; every operation raises the OsError of a lock that fails.
class BasicThread : NoCopy {
 public:
  /// Where the thread is in its life.
  enum State : int {
    CREATED = 0,           ///< the native thread exists and is held before the body
    STARTING = 1,          ///< it was told to go and has not picked that up yet
    RUNNING = 2,           ///< the body runs in a joinable thread
    FINISHED = 3,          ///< the body has ended, or was released without running
    BURIED = 4,            ///< there is no native thread
    RUNNING_DETACHED = 5,  ///< the body runs, or has ended, in a detached thread
  };

  /// Names a native thread. A plain value.
  struct Id {
    Id() = default;
    /// Of a thread whose names are known.
    Id(::pthread_t threadHandle, std::uint64_t number) : handle(threadHandle), nativeId(number) {}
    /// Reads the friendly form: a decimal number, after blanks if there are any; what follows the digits
    /// is ignored. Raises RuntimeError for everything else, signs included.
    explicit Id(const std::string& friendly);

    std::string friendly() const;  ///< nativeId in decimal

    ::pthread_t handle{};        ///< the handle that pthread calls take
    std::uint64_t nativeId = 0;  ///< the system-wide number; all ones when the system did not tell it
  };

  /// A thread that will call function(argument). The native thread gets as much of `name` as the system
  /// takes (15 bytes on Linux). `stackSize` is in bytes, 0 for 512 KiB; the system's minimum is kept. Raises
  /// OsError (ENOMEM) and std::bad_alloc.
  BasicThread(void (*function)(void*), const std::string& name, void* argument, bool detached,
              unsigned long stackSize);
  /// Buries a thread that has finished or never ran; one whose body runs is left to itself. Waits for nothing
  /// in a forked child. Never throws: a lock or a join that the system refuses ends the program.
  virtual ~BasicThread();  // NOLINT(bugprone-exception-escape): ends the program then

  /// Creates the native thread and lets it go. Raises what create() raises, and UsageError when another
  /// thread buried the new one before it could go. One that was created and could not be let go stays held.
  void run();
  /// Creates the native thread, held before the body. Raises UsageError when the state is not BURIED or
  /// there is no body, RuntimeError while a fork is pending, OsError when the system refuses: EAGAIN for want
  /// of resources, EINVAL for a stack that it cannot make.
  void create();

  /// Waits until the native thread has ended, and buries it; returns at once when it is BURIED. A held
  /// thread leaves without running its body. Raises UsageError for a detached thread that runs or ran,
  /// OsError EINVAL for one that was never let go, EDEADLK for the thread itself. In a forked child it does
  /// nothing for a thread that stayed with the parent; neither does kill(). A lock that is refused twice
  /// when the burial is to be noted ends the program, as others would wait for it for ever.
  void join();
  /// Gets ready for joining: releases a held thread, which stays held if it cannot be woken. False when there
  /// is nothing to join; raises UsageError for a detached thread that runs.
  bool prepareJoin();
  /// Cancels the native thread and joins it. A last resort: the body ends at its next cancellation point,
  /// which may never come, and only on some systems (Linux) are the destructors on its stack run. There, a
  /// body with a `catch (...)` that does not throw on, or with a noexcept function around such a point, ends
  /// the process. Raises OsError ESRCH when a detached thread has ended, and what join() raises.
  void kill();

  /// Waits while the state is STARTING.
  void waitStartOver() const;

  const std::string& name() const noexcept;  ///< as it was given
  State state() const;                       ///< may be another one by the time it is looked at
  /// Waits while the state is STARTING. Raises RuntimeError while there is no native thread, or it is held.
  Id id() const;

  /// Lets other threads have the processor. Raises OsError.
  static void yield();
  /// How many native threads of this library exist, from their first step to their last.
  static std::int64_t activeThreads() noexcept;

  /// Raises the RuntimeError of id().
  [[noreturn]] void throwGetIdError() const;

 protected:
  /// What the object and its native thread share, so that neither depends on the other's life.
  struct KES_HIDDEN Control;

  /// For a derived class, whose control block knows the body. Errors of the public constructor.
  BasicThread(std::shared_ptr<Control> control, unsigned long stackSize);

  /// This process's control block, made anew in a forked child. Raises OsError and std::bad_alloc.
  const std::shared_ptr<Control>& control() const;
  /// Whether the calling thread is this one; false, too, when the run was buried meanwhile. Raises what id()
  /// raises. The control block is locked.
  bool isCaller() const;
  /// Takes back the go of a thread that has not picked it up, for an object that is about to die.
  void revokeGo() noexcept;  // NOLINT(bugprone-exception-escape): ends the program then

 private:
  friend class Run;

  struct KES_HIDDEN PlainControl;

  const std::unique_ptr<PerProcess<Control>> control_;
  ::pthread_attr_t attributes_;
};

/// Writes the friendly form.
std::ostream& operator<<(std::ostream& stream, const BasicThread::Id& id);

/// The calling thread's system-wide number. Raises OsError.
std::uint64_t getNativeThreadId();

}  // namespace kes::thread

KES_EXPORT_END
