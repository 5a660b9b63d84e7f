// Runs a program as another user, as a starter of services does: with an environment of its own and nothing
// left of root's rights. Says how it ended, and ends as it did.
//   run_as USER PROGRAM [ARGUMENT...]
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <list>
#include <string>

#include "kespal/UserInfo.h"
#include "kespal/kespal.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/ExitStatus.h"
#include "kespal/proc/StartFailure.h"

namespace {

using kes::UserInfo;
using kes::proc::Child;
using kes::proc::ExitStatus;
using kes::proc::StartFailure;

/// Nothing of root's environment: not its PATH, and no variable that a loader or an interpreter listens to.
std::list<std::string> environmentOf(const UserInfo& user) {
  return {"PATH=/usr/local/bin:/usr/bin:/bin", "HOME=" + user.home, "USER=" + user.name,
          "LOGNAME=" + user.name, "SHELL=" + user.shell};
}

/// The numbers that a shell has for this.
int codeOf(const StartFailure& failure) {
  return failure.step == StartFailure::Step::Exec && failure.errnum == ENOENT ? 127 : 126;
}
int codeOf(const ExitStatus& end) {
  const auto signal = end.signal();
  return signal ? 128 + *signal : end.exitCode().value_or(1);
}

int run(const UserInfo& user, const std::list<std::string>& command) {
  Child child(command);
  child.setUser(user);
  child.setEnvironment(environmentOf(user));
  child.setSearchOwnPath(true);
  child.setWorkingDirectory("/");
  child.create();
  const ExitStatus end(child.wait().status);
  const auto failure = child.startFailure();
  if (failure && failure->isFatal()) {
    std::cerr << "run_as: " << command.front() << " was not started: " << *failure << '\n';
    return codeOf(*failure);
  }
  std::cout << command.front() << ' ' << end << '\n';
  return codeOf(end);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 3) {
    std::cerr << "usage: run_as USER PROGRAM [ARGUMENT...]\n";
    return 1;
  }
  if (::geteuid() != 0) {
    std::cout << "only root can start a program as another user\n";
    return 0;
  }
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  return run(UserInfo(std::string(argv[1])), {argv + 2, argv + argc});
} catch (const kes::Exception& error) {
  std::cerr << error.exStack();
  return 1;
}
