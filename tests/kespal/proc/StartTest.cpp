// How a child comes to be: with its parent's memory until it runs its program, or else by a plain fork.
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <iostream>
#include <iterator>
#include <list>
#include <string>
#include <utility>

#include "kespal/proc/Child.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::proc {
namespace {

using test::Call;
using test::Instead;
using test::made;
using test::real;

std::atomic<int> heldUp{-1};  ///< what a child waits for at its first dup2(): the end of a pipe

const Instead<Call::dup2> dup2Here([](int from, int to) {
  char nothing = 0;
  if (const int fd = heldUp.exchange(-1); fd != -1) (void)!::read(fd, &nothing, 1);
  return real<Call::dup2>(from, to);
});

/// From now on the system refuses this process and its children the children that share memory.
bool refuseSharing(int errnum) {
  constexpr auto flags = static_cast<unsigned>(offsetof(::seccomp_data, args));  // clone's first argument
  ::sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned>(offsetof(::seccomp_data, nr))),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, flags),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_VFORK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(errnum)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  ::sock_fprog program{std::size(rules), rules};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(StartTest, WhereAFilterRefusesToShareMemoryAPlainForkDoesAllOfIt) {
  KES_SKIP_UNDER_SANITIZERS("never shares memory with a child");
  for (const int refused : {EPERM, ENOSYS, EINVAL}) {
    const test::TempDir dir;
    const auto result = test::inChild([&] {
      if (!refuseSharing(refused)) return 77;
      const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
      const int before = made(Call::fork);
      Child child({"sh", "-c", "echo $A; pwd; exit 4"}), failing({"/no/such/program"});
      child.setEnvironment({"A=1"});
      child.setWorkingDirectory("/");
      child.setStdout(out);
      errno = EDOM;
      child.create();
      const bool isKept = errno == EDOM;
      const int code = WEXITSTATUS(child.wait().status);
      failing.create();
      const int failure = WEXITSTATUS(failing.wait().status);
      Child::exit();
      std::cout << code << ' ' << failure << ' ' << isKept << ' ' << made(Call::fork) - before;
      return 0;
    });
    if (result.exitCode() == 77) GTEST_SKIP() << "no filter may be set here";
    EXPECT_EQ(result.out, "4 125 1 2");
    EXPECT_EQ(test::readFile(dir / "out"), "1\n/\n");
    EXPECT_THAT(result.err, testing::HasSubstr("No such file or directory (2)"));
  }
}

/// A text file that a shell runs, as it does not say which program does.
std::string scriptWithoutFirstLine(const test::TempDir& dir) {
  const std::string path = dir / "script";
  std::ofstream(path) << "exit 4\n";
  ::chmod(path.c_str(), 0700);
  return path;
}

TEST(StartTest, AStartWithMoreArgumentsThanTheOneBeforeNeedsNoPlainForkEither) {
  KES_SKIP_UNDER_SANITIZERS("never shares memory with a child");
  const test::TempDir dir;
  std::list<std::string> arguments(60'000, "x");  // the C library copies them on the stack
  arguments.front() = scriptWithoutFirstLine(dir);
  const int before = made(Call::fork);
  Child few({"/bin/true"}), many(arguments);
  few.create();
  EXPECT_EQ(few.wait().status, 0);
  many.create();
  EXPECT_EQ(many.wait().status, 4 << 8);
  few.create();
  EXPECT_EQ(few.wait().status, 0);
  EXPECT_EQ(made(Call::fork), before);
  Child::exit();
}

/// A child that is held up on its way to its program, by a process that waits for it there.
class HeldUp {
 public:
  HeldUp() {
    if (::pipe2(go_, O_CLOEXEC) != 0 || ::pipe2(output_, O_CLOEXEC) != 0) ::abort();
    starter_ = ::fork();
    if (starter_ == 0) start();
    ::close(go_[0]);
    ::close(output_[1]);
  }
  ~HeldUp() {
    ::close(go_[1]);
    ::close(output_[0]);
  }
  HeldUp(const HeldUp&) = delete;
  HeldUp& operator=(const HeldUp&) = delete;

  /// Waits until the child is there.
  pid_t child() const {
    const std::string task = "/proc/" + std::to_string(starter_) + "/task/" + std::to_string(starter_);
    for (;;) {
      pid_t pid = 0;
      if (std::ifstream(task + "/children") >> pid) return pid;
    }
  }
  pid_t starter() const { return starter_; }
  void letGo() { ::close(std::exchange(go_[1], -1)); }
  /// All that the program says, to its end.
  std::string output() const {
    std::string text;
    for (char c = 0; ::read(output_[0], &c, 1) == 1;) text += c;
    return text;
  }

 private:
  [[noreturn]] void start() {
    ::close(go_[1]);
    heldUp = go_[0];
    Child child({"/bin/echo", "whole"});
    child.setStdout(output_[1]);
    child.create();
    const int status = child.wait().status;
    Child::exit();
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
  }

  int go_[2], output_[2];
  pid_t starter_ = -1;
};

TEST(StartTest, AProgramStartsWholeAlthoughItsStarterIsKilledMeanwhile) {
  KES_SKIP_UNDER_SANITIZERS("never shares memory with a child");
  HeldUp held;
  held.child();
  ::kill(held.starter(), SIGKILL);
  int status = 0;
  EXPECT_EQ(::waitpid(held.starter(), &status, 0), held.starter());
  EXPECT_EQ(status, SIGKILL);
  held.letGo();
  EXPECT_EQ(held.output(), "whole\n");
}

TEST(StartTest, AChildThatIsKilledOnItsWayToTheProgramIsNotMadeAnewButToldAsKilled) {
  KES_SKIP_UNDER_SANITIZERS("never shares memory with a child");
  HeldUp held;
  ::kill(held.child(), SIGKILL);
  held.letGo();
  EXPECT_EQ(held.output(), "");
  int status = -1;
  EXPECT_EQ(::waitpid(held.starter(), &status, 0), held.starter());
  EXPECT_EQ(WEXITSTATUS(status), SIGKILL);
}

}  // namespace
}  // namespace kes::proc
