#include "Interleaved.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

namespace bench {

namespace {

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

void grow(std::size_t mebibytes) {
  const std::size_t size = mebibytes << 20;
  void* const memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) fail("mmap");
  ::madvise(memory, size, MADV_NOHUGEPAGE);
  for (std::size_t at = 0; at < size; at += 4096) static_cast<char*>(memory)[at] = 1;
}

void transfer(ssize_t (*call)(int, void*, std::size_t), int fd, void* data, std::size_t size) {
  auto* at = static_cast<char*>(data);
  while (size != 0) {
    const ssize_t count = call(fd, at, size);
    if (count <= 0) fail("a worker has ended");
    at += count;
    size -= static_cast<std::size_t>(count);
  }
}

ssize_t writeFrom(int fd, void* data, std::size_t size) { return ::write(fd, data, size); }

[[noreturn]] void serve(const Way& way, int orders, int answers) {
  way.turn();  // the first time has to load and to make what later ones find
  for (char order = 0; ::read(orders, &order, 1) == 1;) {
    Times times = way.turn();
    std::size_t count = times.size();
    transfer(&writeFrom, answers, &count, sizeof count);
    transfer(&writeFrom, answers, times.data(), count * sizeof times.front());
  }
  ::_exit(0);
}

}  // namespace

Worker::Worker(const Way& way, std::size_t mebibytes) {
  int orders[2], answers[2];
  if (::pipe2(orders, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0) fail("pipe2");
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ == -1) fail("fork");
  if (pid_ == 0) {
    ::close(orders[1]);
    ::close(answers[0]);
    grow(mebibytes);
    serve(way, orders[0], answers[1]);
  }
  ::close(orders[0]);
  ::close(answers[1]);
  orders_ = orders[1];
  answers_ = answers[0];
}

// Workers that were made later have this one's orders open as well: its end is not seen by closing them.
Worker::~Worker() {
  ::close(orders_);
  ::close(answers_);
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

Times Worker::turn() const {
  char order = 0;
  std::size_t count = 0;
  transfer(&writeFrom, orders_, &order, 1);
  transfer(&::read, answers_, &count, sizeof count);
  Times times(count);
  transfer(&::read, answers_, times.data(), count * sizeof(double));
  return times;
}

double Measured::quantile(double part) const {
  Times sorted = times;
  const auto last = static_cast<double>(sorted.size() - 1);
  const auto place = sorted.begin() + static_cast<std::ptrdiff_t>(part * last);
  std::nth_element(sorted.begin(), place, sorted.end());
  return *place;
}

void takeTurns(const std::vector<const Worker*>& workers, int rounds,
               const std::vector<Measured*>& measured) {
  for (std::size_t round = 0; round < static_cast<std::size_t>(rounds); ++round) {
    for (std::size_t i = 0; i < workers.size(); ++i) {
      const std::size_t at = round % 2 == 0 ? (round + i) % workers.size() : workers.size() - 1 - i;
      const Times times = workers[at]->turn();
      measured[at]->times.insert(measured[at]->times.end(), times.begin(), times.end());
    }
  }
}

std::vector<Measured> measure(const std::vector<Way>& ways, std::size_t mebibytes, int rounds) {
  std::vector<std::unique_ptr<Worker>> workers;
  std::vector<Measured> measured;
  for (const Way& way : ways) {
    workers.push_back(std::make_unique<Worker>(way, mebibytes));
    measured.push_back({way.name, {}});
  }
  std::vector<const Worker*> who;
  std::vector<Measured*> what;
  for (std::size_t i = 0; i < ways.size(); ++i) {
    who.push_back(workers[i].get());
    what.push_back(&measured[i]);
  }
  takeTurns(who, rounds, what);
  return measured;
}

void printHead(const std::string& title, const std::string& base) {
  std::printf("\n%s\n%-28s %11s %11s %11s   by %s\n", title.c_str(), "", "median us", "quartile us",
              "minimum us", base.c_str());
}

void printLine(const Measured& way, const Measured& base, const std::string& goal) {
  std::printf("%-28s %11.2f %11.2f %11.2f   %.2f  %.2f  %.2f%s%s\n", way.name.c_str(),
              way.quantile(0.5) / 1e3, way.quantile(0.25) / 1e3, way.quantile(0) / 1e3,
              way.quantile(0.5) / base.quantile(0.5), way.quantile(0.25) / base.quantile(0.25),
              way.quantile(0) / base.quantile(0), goal.empty() ? "" : "  goal ", goal.c_str());
  std::fflush(stdout);
}

double now() {
  ::timespec time{};
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

}  // namespace bench
