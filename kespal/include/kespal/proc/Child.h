#pragma once

#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <string>

#include "kespal/NoCopy.h"
#include "kespal/error/Site.h"
#include "kespal/thread/Lock.h"
#include "kespal/time/Milliseconds.h"

namespace kes::proc {

class Program;
class Shepherd;

/// A program to start, as a child process or in place of this one, and the child while it runs. Children
/// are reaped by the one process collector (Shepherd), which also takes those that others forked. An object
/// is used by one thread at a time; several objects by as many threads as you like. Its end neither waits
/// for the child nor signals it.
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
    /// there), delete it, and start others; a kes::Exception is reported and goes no further.
    virtual void exited(Child& child) = 0;
  };

  Child() = default;
  explicit Child(const std::list<std::string>& arguments) : arguments_(arguments) {}
  virtual ~Child();  // NOLINT(bugprone-exception-escape): ends the program then

  // What will be started. Changes count for the next create().

  /// The program, searched on PATH when it has no "/", and its arguments; the first is both.
  void setArguments(const std::list<std::string>& arguments) { arguments_ = arguments; }
  /// NAME=value texts; none means that the child inherits this process's environment.
  void setEnvironment(const std::list<std::string>& environment) { environment_ = environment; }
  /// Empty means that this process's is kept.
  void setWorkingDirectory(const std::string& directory) { workingDirectory_ = directory; }
  /// Descriptors that the child gets as its 0, 1 and 2; -1 means that it inherits this process's. They stay
  /// the caller's. Their close-on-exec flag is cleared by create() and stays so: hand in descriptors that
  /// no other child should get at the same time.
  void setStdin(int fd) { stdinFd_ = fd; }
  void setStdout(int fd) { stdoutFd_ = fd; }
  void setStderr(int fd) { stderrFd_ = fd; }
  /// Whether the child becomes the leader of a new process group.
  void setNewProcessGroup(bool enter) { newProcessGroup_ = enter; }
  /// Who is told when the child ends; not owned. Waits while the notification of an earlier child still
  /// runs on the collector's thread. RuntimeError while a child runs.
  void setNotify(Notification* notification);

  /// Starts the program. With `inPlace` this process becomes it, and the call does not return. Otherwise
  /// returns once the child is forked and registered; that the program could not be started then shows as
  /// exit code 125 and on the child's standard error. UsageError without arguments; OsError (EBADF for a
  /// descriptor that is not open, EAGAIN, ENOMEM for the fork); RuntimeError while a fork is pending.
  void create(bool inPlace = false);

  /// Waits until the child has ended or, when `timed`, until `timeout` has passed; a child that was waited
  /// for successfully is forgotten. UsageError when there is no child; RuntimeError when the collector ends
  /// meanwhile.
  ExitState wait(bool timed = false, const time::Milliseconds& timeout = {});

  /// Signals the child. NoSuchProcessError when it does not run any more, whether or not it was waited for.
  void kill(const int& signal = SIGKILL);
  void term(const int& signal = SIGTERM);

  /// The running child's process id; -1 when there is none.
  pid_t pid() const noexcept { return pid_; }

  /// Tells the notification. Called by the collector; the object may be gone afterwards.
  void exited();

  /// Creates and starts the collector if there is none; create() does it when needed. RuntimeError while a
  /// fork is pending.
  static void init();
  /// Stops the collector, if there is one, within moments, whatever children still run. Not from a
  /// notification: RuntimeError.
  static void exit();

  static Shepherd* m_shepherd;      ///< null until first needed
  static thread::Lock m_init_lock;  ///< guards m_shepherd; no collector's lock is taken while it is held

 private:
  void fork(const Program& program);
  void signal(const Site& site, int signal) const;

  std::list<std::string> environment_;
  std::list<std::string> arguments_;
  std::atomic<pid_t> pid_{-1};      // a notification may read it while another thread waits
  std::uint64_t registration_ = 0;  // tells the child from others that had its process id
  std::string workingDirectory_;
  int stdoutFd_ = -1;
  int stderrFd_ = -1;
  int stdinFd_ = -1;
  Notification* notify_ = nullptr;
  bool newProcessGroup_ = false;
};

/// "finished: " and 0 or 1, "killed: " and 0 or 1 on a second line, and for a child that ended by itself
/// "code: " and the exit code on a third; no newline behind the last.
std::ostream& operator<<(std::ostream& stream, const Child::ExitState& state);

/// Makes the calling process the leader of a new process group; a failure is told on standard error only.
/// Safe between fork and exec.
void enterNewProcessGroup();

}  // namespace kes::proc
