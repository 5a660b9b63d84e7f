#pragma once

#include <array>
#include <cstddef>
#include <list>
#include <string>
#include <vector>

#include "kespal/NoCopy.h"
#include "kespal/error/Site.h"
#include "os/posix/proc/ErrorTexts.h"

namespace kes::proc {

/// What a process is to become. Whatever takes memory or a lock is prepared here, before a fork: the
/// pointers, the files that a search would try, and what the child says when it cannot go on. The strings
/// that it was made of must outlive it.
class Program : NoCopy {
 public:
  struct Streams {
    int out, err, in;  ///< descriptors for 1, 2 and 0; -1 leaves one as it is
  };

  Program(const std::list<std::string>& arguments, const std::list<std::string>& environment,
          const std::string& workingDirectory, const Streams& streams);

  /// Turns the calling process into the program. When that fails, says so on standard error and ends the
  /// process with status 125. Up to a successful exec it makes system calls only: another thread may have
  /// held any lock, the allocator's, the locale's and the loader's included, at the moment of the fork.
  [[noreturn]] void become() const noexcept;
  /// The same, but returns without a word as soon as there is something to tell.
  void becomeSilently() const noexcept;

  std::size_t argumentCount() const noexcept { return argv_.size(); }

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

  static Farewell ofCall(const Site& site);
  Farewell ofDirectory() const;

  static int restoreMask() noexcept;
  bool enterDirectory() const noexcept;
  void execute() const noexcept;
  [[noreturn]] void giveUp(const Farewell& farewell, int errnum) const noexcept;

  const std::string& directory_;
  const std::array<Redirection, 3> redirections_;
  mutable std::vector<char*> argv_;      ///< of the caller's strings, ending with a null
  std::vector<char*> envp_;              ///< the same; empty when the environment is inherited
  std::vector<std::string> candidates_;  ///< where the program may be found along PATH

  const ErrorTexts errorTexts_;
  Farewell noMask_, noDirectory_, noProgram_;
};

}  // namespace kes::proc
