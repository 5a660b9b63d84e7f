#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "kespal/os/posix/proc/Start.h"
#include "support/EveryFailure.h"
#include "support/Sanitizer.h"
#include "sys/NoCancel.h"

// Children on their way to a program.

namespace kes::os {
namespace {

using test::Call;
using test::expectSurvival;
using test::Stage;

void becomeTrue(void* argument) {
  auto* const words = static_cast<char**>(argument);
  ::execve(words[0], words, environ);
}

void becomeTrueOrSay(void* argument) {
  becomeTrue(argument);
  ::_exit(77);
}

/// A child that is waited for, whatever happens.
struct Started {
  pid_t pid = -1;
  Started() = default;
  ~Started() { code(); }
  Started(const Started&) = delete;
  Started& operator=(const Started&) = delete;

  /// How it ended.
  int code() {
    const sys::NoCancel untilGone;
    int status = -1;
    while (pid > 0 && ::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST(EveryFailureOfStarts, AChildIsStarted) {
  expectSurvival({.operations = {"kes::os::startChild"}, .play = [](Stage& stage) {
                    char program[] = "/bin/true";
                    char* words[] = {program, nullptr};
                    Started child;
                    int errnum = 0;
                    stage.act([&] {
                      child.pid = startChild(&becomeTrue, &becomeTrueOrSay, static_cast<void*>(words), 1);
                      errnum = errno;
                      return child.pid > 0;
                    });
                    if (!stage.succeeded()) {
                      const bool isWhy =
                          stage.isRefused(Call::fork, errnum) || stage.isRefused(Call::clone, errnum);
                      return stage.check(child.pid == -1 && isWhy, "it says why not");
                    }
                    const int code = child.code();
                    stage.check(code == 0 || (code == 77 && stage.isRefused(Call::execve)), "how it ends");
                  }});
}

TEST(EveryFailureOfStarts, AChildThatSaysNothingIsStartedOrNot) {
  KES_SKIP_UNDER_SANITIZERS("never shares memory with a child, so that none is made that may not speak");
  expectSurvival({.operations = {"kes::os::startChild"}, .play = [](Stage& stage) {
                    char program[] = "/bin/true";
                    char* words[] = {program, nullptr};
                    Started child;
                    stage.act([&] {
                      child.pid = startChild(&becomeTrue, nullptr, static_cast<void*>(words), 1);
                      return child.pid > 0;
                    });
                    if (stage.succeeded()) stage.check(child.code() == 0, "how it ends");
                  }});
}

}  // namespace
}  // namespace kes::os
