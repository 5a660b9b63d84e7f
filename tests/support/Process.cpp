#include "support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace kes::test {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds patience(120);

void closeEnd(int& fd) {
  if (const int closing = std::exchange(fd, -1); closing >= 0) ::close(closing);
}

/// Puts what the setup says in the place of one standard descriptor.
void place(int given, int collector, int target) {
  if (given == Process::closed) {
    ::close(target);
    return;
  }
  const int source = given == Process::collected ? collector : given;
  ::dup2(source == Process::nothing ? ::open("/dev/null", O_RDWR | O_CLOEXEC) : source, target);
}

[[noreturn]] void execute(std::vector<char*> arguments, const Process::Setup& setup, int out, int err) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing running
  for (const std::string& variable : setup.environment) ::putenv(const_cast<char*>(variable.c_str()));
  if (setup.isSessionLeader) {
    ::setsid();
    ::ioctl(setup.in, TIOCSCTTY, 0);
  }
  place(setup.in, -1, 0);
  place(setup.out, out, 1);
  if (setup.isMerged) {
    ::dup2(1, 2);
  } else {
    place(setup.err, err, 2);
  }
  ::execvp(arguments[0], arguments.data());
  ::_exit(127);
}

}  // namespace

Process::Process(const std::vector<std::string>& command, const Setup& setup) {
  TestPipe out, err;
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) execute(std::move(arguments), setup, out.writer, err.writer);
  if (pid_ < 0) throw std::runtime_error("no child");
  if (setup.out == collected) out_.fd = std::exchange(out.reader, -1);
  if (setup.err == collected && !setup.isMerged) err_.fd = std::exchange(err.reader, -1);
}

Process::~Process() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  closeEnd(out_.fd);
  closeEnd(err_.fd);
}

void Process::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

bool Process::waitFor(const Stream& stream, const std::string& text) {
  const auto limit = Clock::now() + patience;
  while (stream.text.find(text) == std::string::npos) {
    if (!collect() || Clock::now() > limit) break;
  }
  return stream.text.find(text) != std::string::npos;
}

int Process::wait() {
  const auto limit = Clock::now() + patience;
  int status = 0;
  while (::waitpid(pid_, &status, WNOHANG) == 0) {
    if (Clock::now() > limit)
      throw std::runtime_error("the program does not end; it wrote: " + out() + err());
    if (!collect()) ::poll(nullptr, 0, 1);
  }
  pid_ = -1;
  // What a descendant still holds open is not waited for.
  for (Stream* stream : {&out_, &err_}) {
    if (stream->fd >= 0) ::fcntl(stream->fd, F_SETFL, O_NONBLOCK);
  }
  while (out_.fd >= 0 || err_.fd >= 0) {
    const std::size_t before = out().size() + err().size();
    if (!collect() || out().size() + err().size() == before) break;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

bool Process::collect() {
  std::array<Stream*, 2> streams{&out_, &err_};
  std::array<pollfd, 2> pipes{{{out_.fd, POLLIN, 0}, {err_.fd, POLLIN, 0}}};
  if (out_.fd < 0 && err_.fd < 0) return false;
  ::poll(pipes.data(), pipes.size(), 10);
  for (std::size_t i = 0; i < 2; ++i) {
    if (pipes[i].fd < 0 || pipes[i].revents == 0) continue;
    std::array<char, 65536> buffer;
    const ssize_t count = ::read(pipes[i].fd, buffer.data(), buffer.size());
    if (count > 0) {
      streams[i]->text.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
      closeEnd(streams[i]->fd);
    }
  }
  return true;
}

TestPipe::TestPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  reader = ends[0];
  writer = ends[1];
}

TestPipe::~TestPipe() {
  closeReader();
  closeWriter();
}

void TestPipe::write(const std::string& text) const {
  if (::write(writer, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("cannot write to the pipe");
  }
}

void TestPipe::closeReader() { closeEnd(reader); }
void TestPipe::closeWriter() { closeEnd(writer); }

}  // namespace kes::test
