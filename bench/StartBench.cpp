// What it costs to start programs and to collect them: this library, the calls under it, and peers.
//   bench_start [ROUNDS [GROUP]]     200 rounds, of every group: small large storm collect; own is small
//   without peers
// Goals, by medians:
//   create and wait          at most 1.15 x vfork, exec and waitpid, at 10 MiB and at 1 GiB; every peer at
//                            least 1.25 and 18 x behind
//   1,000 programs           at most 1.3 x vfork all, waitpid all
//   one ended child          at most 1.25 x a turn of a waitpid(-1) loop
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "Interleaved.h"
#include "StartPeers.h"
#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"

namespace {

using bench::Measured;
using bench::Times;
using bench::Way;
using bench::Worker;

constexpr char program[] = "/bin/true";
constexpr int startsInATurn = 3;
constexpr int manyChildren = 1000;

void expectSuccess(int status) {
  if (status == 0) return;
  std::fprintf(stderr, "a program did not succeed: %d\n", status);
  std::abort();
}

void awaitChild(pid_t pid) {
  int status = -1;
  while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  expectSuccess(status);
}

// --- one program

template <typename Start>
Times timesOf(const Start& startAndWait) {
  Times times;
  for (int i = 0; i < startsInATurn; ++i) {
    const double start = bench::now();
    startAndWait();
    times.push_back(bench::now() - start);
  }
  return times;
}

[[noreturn]] void becomeProgram() {
  static char* const arguments[] = {const_cast<char*>(program), nullptr};
  ::execv(program, arguments);
  ::_exit(125);
}

/// The floor of a start: nothing is prepared, held back or handed over.
pid_t rawVfork() {
  const pid_t pid = ::vfork();
  if (pid == 0) becomeProgram();
  return pid;
}

Times byVfork() {
  return timesOf([] { awaitChild(rawVfork()); });
}

Times byFork() {
  return timesOf([] {
    const pid_t pid = ::fork();
    if (pid == 0) becomeProgram();
    awaitChild(pid);
  });
}

Times byChild() {
  static kes::proc::Child child(std::list<std::string>{program});
  return timesOf([] {
    child.create();
    expectSuccess(child.wait().status);
  });
}

const Way floorOfStart{"vfork, exec, waitpid", &byVfork};
const Way forkOfStart{"fork, exec, waitpid", &byFork};
const Way ownStart{"kes::proc::Child", &byChild};

std::vector<Way> otherStarts() {
  std::vector<Way> ways = startPeers(program, startsInATurn);
  ways.insert(ways.begin(), forkOfStart);
  return ways;
}

/// Three processes of this size at a time.
void compareStarts(std::size_t mebibytes, int rounds, const std::string& aheadOfPeers = "") {
  const Worker floor(floorOfStart, mebibytes), own(ownStart, mebibytes);
  Measured floorTimes{floorOfStart.name, {}}, ownTimes{ownStart.name, {}};
  bench::takeTurns({&floor, &own}, rounds, {&floorTimes, &ownTimes});
  const std::string title =
      "A program started and waited for, parent of " + std::to_string(mebibytes) + " MiB";
  bench::printHead(title, "the floor");
  bench::printLine(floorTimes, floorTimes);
  bench::printLine(ownTimes, floorTimes, "1.15");
  if (aheadOfPeers.empty()) return;
  bench::printHead("The same, others", "kes::proc::Child in the same rounds");
  const int turns =
      std::max(5, rounds / (mebibytes < 100 ? 10 : 40));  // a fork of a large process takes long
  for (const Way& way : otherStarts()) {
    const Worker other(way, mebibytes);
    Measured times{way.name, {}}, ownMeanwhile{ownStart.name, {}};
    bench::takeTurns({&other, &own}, turns, {&times, &ownMeanwhile});
    bench::printLine(times, ownMeanwhile, way.name == forkOfStart.name ? "" : aheadOfPeers);
  }
}

// --- a thousand programs

Times stormByVfork() {
  const double start = bench::now();
  for (int i = 0; i < manyChildren; ++i) rawVfork();
  for (int i = 0; i < manyChildren; ++i) awaitChild(-1);
  return {(bench::now() - start) / manyChildren};
}

Times stormByChild() {
  static std::list<kes::proc::Child> children;
  while (children.size() < manyChildren) children.emplace_back(std::list<std::string>{program});
  const double start = bench::now();
  for (kes::proc::Child& child : children) child.create();
  for (kes::proc::Child& child : children) expectSuccess(child.wait().status);
  return {(bench::now() - start) / manyChildren};
}

void compareStorms(int rounds) {
  const auto all = bench::measure({{"vfork all, waitpid all", &stormByVfork}, {ownStart.name, &stormByChild}},
                                  10, std::max(5, rounds / 20));
  bench::printHead("Each of 1,000 programs, all started, then all collected", "the floor");
  bench::printLine(all[0], all[0]);
  bench::printLine(all[1], all[0], "1.3");
}

// --- children that have ended

/// Forks children that end at once, and waits until all have; nobody has collected them.
std::vector<pid_t> endedChildren() {
  std::vector<pid_t> pids(manyChildren);
  for (pid_t& pid : pids) {
    pid = ::fork();
    if (pid == 0) ::_exit(0);
  }
  for (const pid_t pid : pids) {
    siginfo_t info;
    while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
  }
  return pids;
}

/// What this process has used so far, all its threads together. Other work on the machine does not show in
/// it, while it would decide when the collector's thread gets to run.
double processorTime() {
  ::timespec used{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

Times collectByLoop() {
  endedChildren();
  const double start = processorTime();
  for (int i = 0; i < manyChildren; ++i) awaitChild(-1);
  return {(processorTime() - start) / manyChildren};
}

void waitFor(kes::proc::Shepherd& shepherd, pid_t pid) {
  int status = -1;
  shepherd.wait(pid, status);
  expectSuccess(status);
}

Times collectByShepherd() {
  static auto& shepherd = [&]() -> kes::proc::Shepherd& {
    auto* const made = new kes::proc::Shepherd;
    made->start();
    return *made;
  }();
  shepherd.condition().lock();
  const std::vector<pid_t> pids = endedChildren();
  for (const pid_t pid : pids) shepherd.addNoLock(pid, nullptr);
  const double start = processorTime();
  shepherd.condition().unlock();
  // Children are found in the order of their start: when the last one is collected, all are.
  waitFor(shepherd, pids.back());
  const double taken = (processorTime() - start) / manyChildren;
  for (std::size_t i = 0; i + 1 < pids.size(); ++i) waitFor(shepherd, pids[i]);
  return {taken};
}

void compareCollectors(int rounds) {
  const auto all =
      bench::measure({{"waitpid(-1) loop", &collectByLoop}, {"kes::proc::Shepherd", &collectByShepherd}}, 1,
                     std::max(5, rounds / 4));
  bench::printHead("Each of 1,000 ended children collected, processor time", "the floor");
  bench::printLine(all[0], all[0]);
  bench::printLine(all[1], all[0], "1.25");
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  const std::string only = argc > 2 ? argv[2] : "";
  const auto wanted = [&only](const char* group) { return only.empty() || only == group; };
  if (wanted("small")) compareStarts(10, rounds, "1.25 at least");
  if (wanted("large")) compareStarts(1024, rounds, "18 at least");
  if (only == "own") compareStarts(10, rounds);
  if (wanted("storm")) compareStorms(rounds);
  if (wanted("collect")) compareCollectors(rounds);
}
