#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

// The tool from start to exit against an empty program, and the CPU time of its dump loop against a bare loop
// of the same calls.

extern char** environ;

namespace {

constexpr unsigned loopSeconds = 2;

/// Starts a program whose output is thrown away.
pid_t start(const std::vector<std::string>& command, int input) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input, 0);
  ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  ::posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  return pid;
}

rusage usageOf(pid_t pid) {
  rusage usage{};
  int status;
  ::wait4(pid, &status, 0, &usage);
  return usage;
}

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void startToExit(benchmark::State& state, const std::vector<std::string>& command) {
  const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  long peak = 0;
  for (auto _ : state) peak = usageOf(start(command, input)).ru_maxrss;
  state.counters["peak_KiB"] = static_cast<double>(peak);
  ::close(input);
}
BENCHMARK_CAPTURE(startToExit, empty, {KES_BENCH_EMPTY})->UseRealTime();
BENCHMARK_CAPTURE(startToExit, kestrace, {KES_BENCH_KESTRACE})->UseRealTime();
#ifdef KES_BENCH_KESTRACE_SHARED
BENCHMARK_CAPTURE(startToExit, kestrace_shared, {KES_BENCH_KESTRACE_SHARED})->UseRealTime();
#endif
BENCHMARK_CAPTURE(startToExit, tcpdump, {"tcpdump", "--version"})->UseRealTime();

/// kesdriver in a registry directory of its own.
class Driver {
 public:
  Driver() {
    char folder[] = "/tmp/kes-bench-XXXXXX";
    directory_ = ::mkdtemp(folder);
    ::setenv("KES_IOREGISTRY", folder, 1);
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_ = start({KES_BENCH_KESDRIVER, "--dir", directory_}, input);
    ::close(input);
    while (!std::filesystem::exists(directory_ + "/kes_vpn_driver_keslbmac.sock")) ::usleep(1000);
  }
  ~Driver() {
    ::kill(pid_, SIGTERM);
    usageOf(pid_);
    std::filesystem::remove_all(directory_);
  }

  std::string capture() const { return directory_ + "/capture"; }

 private:
  std::string directory_;
  pid_t pid_;
};

void loopCpu(benchmark::State& state, const std::vector<std::string>& command) {
  const Driver driver;
  std::vector<std::string> words = command;
  if (words.size() > 1) words.push_back(driver.capture());
  for (auto _ : state) {
    int keyboard[2];
    if (::pipe2(keyboard, O_CLOEXEC) != 0) return state.SkipWithError("no pipe");
    const pid_t pid = start(words, keyboard[0]);
    ::sleep(loopSeconds);
    if (::write(keyboard[1], "Q", 1) != 1) return state.SkipWithError("no key");
    const rusage usage = usageOf(pid);
    state.SetIterationTime(seconds(usage.ru_utime) + seconds(usage.ru_stime));
    ::close(keyboard[0]);
    ::close(keyboard[1]);
  }
}
BENCHMARK_CAPTURE(loopCpu, bare, {KES_BENCH_BARE_LOOP})->UseManualTime()->Iterations(3);
BENCHMARK_CAPTURE(loopCpu, kestrace, {KES_BENCH_KESTRACE, "-dump"})->UseManualTime()->Iterations(3);

}  // namespace
