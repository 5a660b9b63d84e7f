#pragma once  // since 0.1

#include <signal.h>

#include <atomic>
#include <memory>
#include <vector>

#include "kespal/Export.h"
#include "kespal/ForkPending.h"
#include "kespal/Locale.h"
#include "kespal/NoCopy.h"
#include "kespal/signal/Handler.h"
#include "kespal/signal/Set.h"
#include "kespal/thread/Lock.h"

KES_EXPORT_BEGIN

namespace kes {

class KesPalInit;

/// What the program itself is; the runtime object keeps a pointer to it and no more.
class AppBase {
 public:
  virtual ~AppBase() = default;
};

/// Is told that the process was asked to quit.
class IQuitHandler {
 public:
  virtual ~IQuitHandler() = default;
  /// Called on the thread that quits, with the runtime object's lock held: it must not add or delete quit
  /// handlers, nor call quit() or destroy the runtime object; explicitQuit() it may call. A kes::Exception
  /// keeps the handlers behind it from being called.
  virtual void handleQuit() = 0;
};

/// Is told that the fork which was pending is done, so that threads may be started.
class IForkHandler {
 public:
  virtual ~IForkHandler() = default;
  /// Called by KesPalInit::forkDone(), on its thread, once. What it throws comes out of there.
  virtual void afterFork() = 0;
};

/// Turns a signal into an orderly quit of the runtime object, on the signal thread.
class QuitSignal : public signal::Handler::INotify {
 public:
  /// For one runtime object, which outlives it.
  explicit QuitSignal(KesPalInit& runtime) noexcept : runtime_(runtime) {}

  /// Notes the signal and calls quit() of the runtime object.
  void notify(const int& signal, const siginfo_t& info) override;
  /// Whether the calling thread is in notify() now.
  static bool notifying() noexcept;

 private:
  KesPalInit& runtime_;
};

/// What the runtime object does with signals, and with a fork that is to come. For the thread that has the
/// runtime object, where nothing else is said.
class KesPalInit : NoCopy {
 public:
  /// See KesPal::quit().
  virtual void quit() = 0;

  /// The signal that requested the quit, the last one if there were several; 0 when none did. Any thread may
  /// ask.
  int receivedSignal() const noexcept { return receivedSignal_; }
  /// Whether the received signal, which requested the quit, ends the process in the end. Any thread may call.
  void setQuitStatus(bool quitStatus) noexcept { quitStatus_ = quitStatus; }

  /// Whether a fork is to come, so that no thread can be made. Any thread may ask.
  bool forkPending() const noexcept { return ForkPending::m_pending; }
  /// The fork was made, and this is the process that goes on: starts the signal thread when quit handling
  /// is on, and calls the fork handlers, each once. Raises what Handler::start() raises, and what a handler
  /// throws; the fork is then still pending, and the next call goes on behind what was done.
  void forkDone();
  /// Registers a handler, not owned; ignored when no fork is pending. For the one thread there is then.
  /// Raises nothing but std::bad_alloc.
  void addForkHandler(IForkHandler& handler);

  /// Blocks, in the calling thread, the signals that the library takes care of: SIGPIPE, SIGUSR1 and
  /// SIGUSR2, with `quitHandling` also SIGINT and SIGTERM. OsError.
  void setSigmask(bool quitHandling);
  /// Has SIGINT and SIGTERM turned into quit() by the signal thread, where there is one. Called by the
  /// library; by a program in a forked child, to start anew there. Raises what Handler::add() and start()
  /// raise.
  void setupQuitHandling();
  /// Installs the terminate handler, unless KESPAL_NO_TERMINATE_HANDLER is in the environment. Raises
  /// nothing.
  void setupTerminateHandling();

  /// When a signal requested the quit and the quit status is set, ends the process by that signal, as far
  /// as the mask that it started with allows; true when that was tried. Waits for nobody: the signal thread
  /// is told to take no more signals. Raises OsError when that thread cannot be told, or when the mask or the
  /// signal is refused.
  bool checkSignalQuit();
  /// Ends the process at once, by the signal as checkSignalQuit() does, else with `status`: no destructors,
  /// no buffered output. True when the signal was sent and did not end the process. Any thread and any quit
  /// handler may call it. Raises as checkSignalQuit() does.
  bool explicitQuit(int status);

 protected:
  /// Only notes what init() is to do.
  KesPalInit(bool quitHandling, bool forkPending) noexcept;
  /// Ends the process by the received signal when that was asked for.
  virtual ~KesPalInit();  // NOLINT(bugprone-exception-escape): ends the program then

  /// Sets masks and handlers up, and starts the signal thread. Raises what the constructor of KesPal does.
  void init();
  void stopSignalThread();  ///< what Handler::stop() raises
  /// Undoes what init() did; for a runtime object that could not be completed.
  void undo() noexcept;

 private:
  friend class QuitSignal;

  void startSignalThread();
  void sendReceivedSignal() const;
  bool quitsBySignal() const noexcept { return quitStatus_ && receivedSignal_ != 0; }

  const bool quitHandling_;
  signal::Set blocked_;  // by init(), and by nobody before
  std::unique_ptr<QuitSignal> quitSignal_;
  std::unique_ptr<signal::Handler> signalHandler_;
  std::vector<IForkHandler*> forkHandlers_;  // used before the first thread is started: without a lock
  std::atomic<int> receivedSignal_{0};
  std::atomic<bool> quitStatus_{false};
};

/// The one object that a program of this library makes first and destroys last: it initialises every
/// module, blocks the signals that the library takes care of, turns SIGINT and SIGTERM into an orderly quit
/// if wanted, and reports uncaught exceptions. Construct and destroy it on the main thread, one at a time;
/// errors of the construction are raised, those of the destruction end the process.
///
/// It blocks those signals only, and leaves them blocked when it ends: a program that wants others blocked in
/// every thread blocks them after constructing it and before starting threads. So it takes SIGHUP, or any
/// other signal, by a signal::Handler of its own: blocks the signal with signal::Mask, adds a notifier for
/// it, and starts the handler with SIGUSR2, which the library blocks and leaves to the program. What is
/// blocked before the construction is, too, for the programs that are started. Clocks and timed waits need
/// the runtime object (or the clocks' own init()). A SIGTERM that comes before the first quit handler is
/// registered is noted, and nothing else: who has registered asks quitRequested(). In a forked child it has
/// no signal thread, and its end leaves the parent's alone.
class KesPal final : public KesPalInit {
 public:
  /// `quitHandling`: SIGINT and SIGTERM become quit(). `forkPending`: the process is about to fork, and no
  /// thread is started until forkDone(). `app`, not owned, may be null. Raises OsError (of a signal mask, of
  /// a clock, EAGAIN of the signal thread), FsError for the null device, and std::bad_alloc.
  KesPal(bool quitHandling, bool forkPending, Locale::Language language, const AppBase* app = nullptr);
  /// Stops the signal thread and the process collector. Not to be called from a quit handler.
  ~KesPal() override;

  /// Calls the quit handlers, on the calling thread; the signal thread calls it for a signal. An error of a
  /// handler is reported on standard error and ends the walk.
  void quit() override;
  /// Whether quit() was called, be it before a quit handler was there to be told. Asked after registering
  /// one, no quit is missed: either this says so or the handler is called, and perhaps both.
  bool quitRequested() const noexcept { return quitRequested_; }
  /// Handlers are not owned. Any thread may call these, but no quit handler.
  void addQuitHandler(IQuitHandler& handler);
  void delQuitHandler(IQuitHandler& handler);  ///< one that was not added is no error

  const AppBase* app() const noexcept { return app_; }  ///< as it was given; not owned

  static KesPal* m_instance;  ///< the one that lives; null when none does

 private:
  struct KES_HIDDEN Shared;

  const std::unique_ptr<thread::PerProcess<Shared>> shared_;
  const AppBase* app_;
  std::atomic<bool> quitRequested_{false};  // set before the lock is taken that registering takes, too
};

/// Whether an exception is being thrown or handled by the calling thread.
bool exceptionActive() noexcept;

/// The terminate handler: reports the uncaught exception, if there is one, and aborts. Any thread; throws
/// nothing.
[[noreturn]] void kespal_terminate();

}  // namespace kes

KES_EXPORT_END
