#pragma once

#include <list>
#include <string>
#include <vector>

#include "kespal/NoCopy.h"

namespace kes::thread {
class Condition;
}

namespace kes::proc {

/// What a process is to become: everything that takes memory is prepared here, before a fork. The strings
/// that it was made of must outlive it.
class Program : NoCopy {
 public:
  struct Streams {
    int out, err, in;  ///< descriptors for 1, 2 and 0; -1 leaves one as it is
  };

  Program(const std::list<std::string>& arguments, const std::list<std::string>& environment,
          const std::string& workingDirectory, const Streams& streams);

  /// Turns the calling process into the program, after releasing the lock that a forked child inherited, if
  /// it is given. When that fails, says so on standard error and ends the process with status 125. Between
  /// a fork and a successful exec it makes system calls only: another thread may have held any lock, the
  /// allocator's included, at the moment of the fork.
  [[noreturn]] void become(const thread::Condition* inherited = nullptr) const;

 private:
  [[noreturn]] void start(const thread::Condition* inherited) const;
  void redirect() const;
  void changeDirectory() const;
  void execute() const;
  [[noreturn]] void giveUp(const char* what, const std::string& error) const;

  const std::string& directory_;
  const Streams streams_;
  mutable std::vector<char*> argv_;      ///< of the caller's strings, ending with a null
  std::vector<char*> envp_;              ///< the same; empty when the environment is inherited
  std::vector<std::string> candidates_;  ///< where the program may be found along PATH
};

}  // namespace kes::proc
