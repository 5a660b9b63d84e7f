#pragma once

#include <functional>
#include <string>

namespace kes::test {

/// What a child process left behind.
struct ChildResult {
  int status = 0;  ///< as waitpid() reports it
  std::string out;
  std::string err;

  bool exited() const;
  int exitCode() const;  ///< -1 when a signal ended it
  int signal() const;    ///< 0 when it exited
};

/// Runs `body` in a forked child, so that what it does to masks, ids, directories or the environment stays
/// there. Its result is the exit code; an exception that leaves it is printed and gives 99. Standard output
/// and error are captured. Google Test's assertions cannot report from there: print, and compare here.
ChildResult inChild(const std::function<int()>& body);

/// The same after the child gave up root for good: user and group nobody, no other groups. As another
/// user it simply runs as that one.
ChildResult asNobody(const std::function<int()>& body);

}  // namespace kes::test
