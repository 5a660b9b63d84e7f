#pragma once  // since 0.1

#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "kespal/Export.h"
#include "kespal/NoCopy.h"
#include "kespal/UserInfo.h"
#include "kespal/error/Site.h"
#include "kespal/proc/ExitStatus.h"
#include "kespal/proc/StartFailure.h"
#include "kespal/thread/Lock.h"
#include "kespal/time/Milliseconds.h"

KES_EXPORT_BEGIN

namespace kes::proc {

class KES_HIDDEN Flock;
class KES_HIDDEN Program;
class Shepherd;
class KES_HIDDEN StartNote;
struct KES_HIDDEN Identity;
struct Output;
struct OutputOptions;
enum class Reaping : std::uint8_t;

/// A program to start, as a child process or in place of this one, and the child while it runs. An object is
/// used by one thread at a time; several objects by as many threads as you like. Its end neither waits for
/// the child nor signals it; it waits for a notification that runs on another thread.
///
/// Children are reaped by the one process collector (Shepherd). While one of them runs it reaps EVERY child
/// of the process, also those of popen(), system() and forks of your own, whose statuses are then lost: start
/// such programs by a Child as well, or tell it to leave them alone (setReaping()). The first create() makes
/// the collector, and with it a SIGCHLD that the process ignores gets its default action, for good.
///
/// A fork without exec has a copy of the object and not the child: there pid() is only a number, wait()
/// raises RuntimeError, kill() and term() raise NoSuchProcessError, and create() starts a child of its own.
class Child : NoCopy {
 public:
  /// What wait() learned.
  struct ExitState {
    int status;     ///< the raw wait status, as waitpid() reports it
    bool finished;  ///< false when a timed wait expired
  };

  /// Is told when a child has ended.
  class Notification {
   public:
    virtual ~Notification() = default;
    /// Called on the collector's thread, with no lock held. It may wait for the child (its status is
    /// there), delete it, and start others; an exception is reported and goes no further. As long as it runs
    /// no other child is reaped.
    virtual void exited(Child& child) = 0;
    /// Called instead when the collector ends while the child still runs, or when somebody else has reaped
    /// it: nobody will tell of its end. On the same thread; may delete the child.
    virtual void released(Child& child);
  };

  Child() = default;
  /// With the arguments that setArguments() takes. std::bad_alloc.
  explicit Child(const std::list<std::string>& arguments) : arguments_(arguments) {}
  virtual ~Child();  // NOLINT(bugprone-exception-escape): ends the program then

  // What will be started. Changes count for the next create().

  /// The program, searched on PATH when it has no "/", and its arguments; the first is both.
  void setArguments(std::list<std::string> arguments) noexcept { arguments_ = std::move(arguments); }
  /// NAME=value texts; none means that the child inherits this process's environment.
  void setEnvironment(std::list<std::string> environment) noexcept {
    environment_ = std::move(environment);
    environmentCleared_ = false;
  }
  /// Empty means that this process's is kept.
  void setWorkingDirectory(const std::string& directory) { workingDirectory_ = directory; }
  /// Descriptors that the child gets as its 0, 1 and 2; -1 means that it inherits this process's. They stay
  /// the caller's. create() clears their close-on-exec flag, and leaves it so: every program that this
  /// process starts from then on, by whatever means, gets them as well, until the caller closes them.
  /// Installed in the order 1, 2, 0, so that a number may stand for what was installed before it.
  void setStdin(int fd) { stdinFd_ = fd; }
  void setStdout(int fd) { stdoutFd_ = fd; }  ///< see setStdin()
  void setStderr(int fd) { stderrFd_ = fd; }  ///< see setStdin()
  /// Whether the child becomes the leader of a new process group.
  void setNewProcessGroup(bool enter) { newProcessGroup_ = enter; }
  /// Who is told when the child ends; not owned. Waits while the notification of an earlier child still
  /// runs on the collector's thread. RuntimeError while a child runs.
  void setNotify(Notification* notification);

  /// An environment without any variable, until the next setEnvironment().
  void clearEnvironment() noexcept {
    environment_.clear();
    environmentCleared_ = true;
  }
  /// Along which PATH a program without a "/" is searched, when the child has an environment of its own: this
  /// process's, or with `own` that of its environment, and nowhere if there is none (ENOENT). Without `own` a
  /// file of that name in the working directory comes first, and the path that was found takes the place of
  /// the first argument; with it neither. Empty entries are left out.
  void setSearchOwnPath(bool own) noexcept { searchesOwnPath_ = own; }
  /// Starts programs, from now on, with the user and the group id of this account, as a member of these
  /// groups besides and of no other. Before it enters its directory and looks for the program, the child
  /// gives up all of its former ids for good, and tries to come back: that takes a process whose effective
  /// user is root, and what is refused shows as startFailure(). Such a child is forked, which takes longer
  /// from a large process. UsageError for an id that is unknown or root's; std::bad_alloc. The former user
  /// stays then.
  void setUser(const UserInfo& user, const std::set<unsigned>& groups = {});
  /// What failed on the way to the program, the last of it; none when it was started as was asked. So a
  /// program that ends with exit code 125 by itself is told from one that could not be started. Complete when
  /// the child has ended, for a notification as well; forgotten by the next create().
  std::optional<StartFailure> startFailure() const noexcept;

  /// Starts the program. With `inPlace` this process becomes it, and the call does not return. Otherwise
  /// returns once the child is made and registered; that the program could not be started then shows as
  /// exit code 125 and on the child's standard error. The child gets the signal mask that this process
  /// started with, and of the descriptors those that are not close-on-exec. UsageError without arguments, and
  /// while pid() is not -1: wait() first. OsError: EBADF for a descriptor that is not open, EAGAIN and ENOMEM
  /// for the child, EAGAIN for the collector's thread. RuntimeError for the first child while a fork is
  /// pending, while Child::exit() runs, and when the collector has ended and Child::exit() was not called.
  /// std::bad_alloc. After an error there is no child.
  void create(bool inPlace = false);

  /// Waits until the child has ended or, when `timed`, until `timeout` has passed; a child that was waited
  /// for successfully is forgotten. A time-out that is not positive asks and does not wait; one that no clock
  /// can tell is none. UsageError when there is no child; RuntimeError when the collector ends or has ended
  /// before the child did, when somebody else has reaped the child, and on the collector's thread for a child
  /// that has not ended; OsError (EINVAL) for a timed wait before the clocks were made ready
  /// (ClockBase::init(), KesPal). After an error the child is forgotten, too, and nobody is told of its end.
  ExitState wait(bool timed = false, const time::Milliseconds& timeout = {});

  /// Signals the child, also after Child::exit(). NoSuchProcessError when it does not run any more, whether
  /// or not it was waited for; OsError (EINVAL for a signal that does not exist, EPERM for a program of
  /// another user).
  void kill(const int& signal = SIGKILL);
  void term(const int& signal = SIGTERM);  ///< kill() with another default

  /// The same as wait(true, timeout), by the monotonic clock.
  ExitState waitFor(const time::Milliseconds& timeout);
  /// Ends the child, and waits for that: SIGTERM, and SIGKILL if it still runs when `grace` has passed by the
  /// monotonic clock. Gives its status, also when it had ended before: then nothing is signalled. Another
  /// thread may be in wait(); both get the status. UsageError when there is no child; RuntimeError as wait()
  /// raises it, and with the same consequence; before SIGTERM, if there was a reason already. OsError
  /// (EINVAL) before the clocks were made ready (ClockBase::init(), KesPal), and (EPERM) for a program of
  /// another user; NoSuchProcessError when somebody else has reaped it: the child stays as it was. Who is
  /// cancelled within the grace has sent SIGTERM only.
  ExitStatus terminate(const time::Milliseconds& grace);
  /// Which children the collector reaps, once there is one: for a program that needs the statuses of
  /// system(), popen() and the like (Shepherd.h). Call before the first child, or after Child::exit();
  /// UsageError while there is a collector. A fork keeps the choice.
  static void setReaping(Reaping reaping);

  /// The running child's process id; -1 when there is none.
  pid_t pid() const noexcept { return pid_; }

  /// Tells the notification. Called by the collector; the object may be gone afterwards.
  void exited();

  /// Creates and starts the collector if there is none; create() does it when needed. RuntimeError while a
  /// fork is pending; OsError (EAGAIN) when the system refuses a thread.
  static void init();
  /// Stops the collector, if there is one, within moments, and is not cancelled meanwhile. Children that
  /// still run are left alone: nobody will reap them, and wait() raises RuntimeError. A create() on another
  /// thread raises it, too, until this has returned. Not from a notification: RuntimeError.
  static void exit();

  static Shepherd* m_shepherd;  ///< null until first needed
  /// Guards m_shepherd; no collector's lock is taken while it is held. Never destroyed: children may end, and
  /// other threads start some, while the process exits.
  static thread::Lock& m_init_lock;

 private:
  friend class Flock;
  friend Output captureOutput(Child& child, const OutputOptions& options);

  static std::shared_ptr<Flock> collector();
  void released();
  void fork(const Program& program);
  void signal(const Site& site, int signal) const;
  void forget();
  void createOver(int in, int out, int err);
  bool isOfThisProcess() const noexcept;

  std::list<std::string> environment_;
  std::list<std::string> arguments_;
  std::atomic<pid_t> pid_{-1};      // a notification may read it while another thread waits
  std::shared_ptr<Flock> flock_;    // where the last child was registered
  pid_t registeredPid_ = -1;        // under this id, which stays when pid_ is -1 again,
  std::uint64_t registration_ = 0;  // and this number
  std::string workingDirectory_;
  int stdoutFd_ = -1;
  int stderrFd_ = -1;
  int stdinFd_ = -1;
  Notification* notify_ = nullptr;
  bool newProcessGroup_ = false;
  bool environmentCleared_ = false;
  bool searchesOwnPath_ = false;
  std::shared_ptr<const Identity> user_;  // null: this process's
  std::shared_ptr<StartNote> note_;       // of the last child
  bool keepsCloseOnExec_ = false;
};

/// "finished: " and 0 or 1, "killed: " and 0 or 1 on a second line, and for a child that ended by itself
/// "code: " and the exit code on a third; no newline behind the last.
std::ostream& operator<<(std::ostream& stream, const Child::ExitState& state);

/// Makes the calling process the leader of a new process group; a failure is told on standard error only.
/// Safe between fork and exec. Any thread may call.
void enterNewProcessGroup();

}  // namespace kes::proc

KES_EXPORT_END
