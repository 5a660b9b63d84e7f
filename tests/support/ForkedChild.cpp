#include "support/ForkedChild.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <stdexcept>

namespace kes::test {

namespace {

std::array<int, 2> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  return ends;
}

[[noreturn]] void runBody(const std::function<int()>& body, int out, int err) {
  ::dup2(out, 1);
  ::dup2(err, 2);
  int code = 99;
  try {
    code = body();
  } catch (const std::exception& error) {
    std::cerr << "left the child: " << error.what() << '\n';
  }
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  ::_exit(code);
}

/// Reads until the pipe ends; false then.
bool readSome(int fd, std::string& text) {
  std::array<char, 4096> buffer;
  const ssize_t count = ::read(fd, buffer.data(), buffer.size());
  if (count > 0) text.append(buffer.data(), static_cast<std::size_t>(count));
  return count > 0 || (count < 0 && errno == EINTR);
}

void collect(int out, int err, ChildResult& result) {
  std::array<pollfd, 2> pipes{{{out, POLLIN, 0}, {err, POLLIN, 0}}};
  while (pipes[0].fd >= 0 || pipes[1].fd >= 0) {
    ::poll(pipes.data(), pipes.size(), -1);
    if (pipes[0].revents != 0 && !readSome(out, result.out)) pipes[0].fd = -1;
    if (pipes[1].revents != 0 && !readSome(err, result.err)) pipes[1].fd = -1;
  }
}

void becomeNobody() {
  const passwd* nobody = ::getpwnam("nobody");
  if (nobody == nullptr || ::setgroups(0, nullptr) != 0 || ::setgid(nobody->pw_gid) != 0 ||
      ::setuid(nobody->pw_uid) != 0) {
    throw std::runtime_error("cannot become nobody");
  }
}

}  // namespace

bool ChildResult::exited() const { return WIFEXITED(status); }
int ChildResult::exitCode() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }
int ChildResult::signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }

ChildResult inChild(const std::function<int()>& body) {
  const auto out = makePipe(), err = makePipe();
  std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) runBody(body, out[1], err[1]);
  ::close(out[1]);
  ::close(err[1]);
  ChildResult result;
  if (pid > 0) collect(out[0], err[0], result);
  ::close(out[0]);
  ::close(err[0]);
  if (pid < 0 || ::waitpid(pid, &result.status, 0) != pid) throw std::runtime_error("no child");
  return result;
}

ChildResult asNobody(const std::function<int()>& body) {
  return inChild([&body] {
    if (::geteuid() == 0) becomeNobody();
    return body();
  });
}

}  // namespace kes::test
