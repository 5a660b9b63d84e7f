#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "kespal/NoCopy.h"
#include "kespal/error/Site.h"
#include "os/posix/proc/ErrorTexts.h"
#include "os/posix/proc/Identity.h"
#include "os/posix/proc/StartNote.h"

namespace kes::proc {

/// What a process is to become. Whatever takes memory or a lock is prepared here, before a fork: the
/// pointers, the files that a search would try, and what the child says when it cannot go on. The strings
/// that it was made of must outlive it.
class Program : NoCopy {
 public:
  struct Streams {
    int out, err, in;  ///< descriptors for 1, 2 and 0; -1 leaves one as it is
  };

  /// What is to be started, and how.
  struct Plan {
    const std::list<std::string>& arguments;
    const std::list<std::string>& environment;
    bool inheritsEnvironment;  ///< this process's, and not the one above
    bool searchesOwnPath;      ///< that of its environment
    const std::string& workingDirectory;
    Streams streams;
    const Identity* user;  ///< whose rights it has; null: this process's
  };

  explicit Program(const Plan& plan);

  /// Turns the calling process into the program. When that fails, says so on standard error, notes it, and
  /// ends the process with status 125. Up to a successful exec it makes system calls only: another thread may
  /// have held any lock, the allocator's, the locale's and the loader's included, at the moment of the fork.
  [[noreturn]] void become(const StartNote& note) const noexcept;
  /// The same, but returns without a word as soon as there is something to tell. Not for another user.
  void becomeSilently() const noexcept;

  std::size_t argumentCount() const noexcept { return argv_.size(); }
  bool isForAnotherUser() const noexcept { return user_ != nullptr; }

 private:
  struct Redirection {
    int target;
    const char* name;
    int fd;

    bool make() const noexcept;
  };

  /// What is said behind the first argument, before and behind the text of an error.
  struct Farewell {
    std::string before;
    const char* after = "";
  };

  /// The last step that failed, when all others depend on it.
  struct Failure {
    StartFailure::Step step;
    int errnum;
    const Farewell& farewell;
  };

  static Farewell ofCall(const Site& site, const char* heading = "");
  Farewell ofDirectory() const;

  static int restoreMask() noexcept;
  void redirect(const StartNote& note) const noexcept;
  std::optional<Failure> changeUser() const noexcept;
  bool enterDirectory() const noexcept;
  void execute() const noexcept;
  void executeAlongOwnPath() const noexcept;
  [[noreturn]] void giveUp(const StartNote& note, const Failure& failure) const noexcept;

  const std::string& directory_;
  const std::array<Redirection, 3> redirections_;
  const Identity* const user_;
  const bool searchesOwnPath_;
  mutable std::vector<char*> argv_;      ///< of the caller's strings, ending with a null
  std::vector<char*> envp_;              ///< the same; empty when the environment is inherited
  std::vector<std::string> candidates_;  ///< where the program may be found along PATH

  const ErrorTexts errorTexts_;
  Farewell noMask_, noUser_, noDirectory_, noProgram_;
};

}  // namespace kes::proc
