// Copying, moving across devices and removing trees: this library, what the system offers, and the plain
// loop of system calls under both. Processor time; setting up and cleaning up is not measured.
//
// Compare medians of interleaved runs:
//   bench_files --benchmark_enable_random_interleaving=true --benchmark_repetitions=9
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kespal/fs/Copier.h"
#include "kespal/fs/Ops.h"

namespace {

namespace stdfs = std::filesystem;

using kes::fs::Copier;
using kes::fs::Ops;

/// A directory that goes away with the object.
class Scratch {
 public:
  explicit Scratch(const std::string& below) : path_(below + "/kes-bench-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot create " + path_);
  }
  ~Scratch() {
    std::error_code ignored;
    stdfs::remove_all(path_, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  std::string operator/(const char* name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

const std::string otherDevice = stdfs::exists("/dev/shm") ? "/dev/shm" : "/var/tmp";

/// What this process and the children it waited for have used of a processor, in seconds. All that is
/// measured here is work for the kernel: what else the machine does meanwhile shall not count.
double processorTime() {
  double sum = 0;
  for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage{};
    ::getrusage(who, &usage);
    for (const timeval& part : {usage.ru_utime, usage.ru_stime}) {
      sum += static_cast<double>(part.tv_sec) + 1e-6 * static_cast<double>(part.tv_usec);
    }
  }
  return sum;
}

template <typename Action>
void measure(benchmark::State& state, Action action) {
  const double start = processorTime();
  action();
  state.SetIterationTime(processorTime() - start);
}

void makeFile(const std::string& path, std::size_t size) {
  std::ofstream file(path, std::ios::binary);
  const std::string piece(std::size_t{1} << 20, 'x');
  for (std::size_t done = 0; done < size; done += piece.size()) file << piece;
}

/// Runs a program as a shell would; its start is part of what it costs.
void command(std::vector<const char*> arguments) {
  arguments.push_back(nullptr);
  const pid_t pid = ::vfork();
  if (pid == 0) {
    ::execvp(arguments[0], const_cast<char* const*>(arguments.data()));
    ::_exit(127);
  }
  int status = -1;
  ::waitpid(pid, &status, 0);
  if (status != 0) throw std::runtime_error(arguments[0]);
}

// --- copying 64 MiB within one memory file system

constexpr std::size_t copySize = std::size_t{64} << 20;

void rawCopy(const std::string& from, const std::string& to, std::vector<char>& buffer) {
  const int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
  const int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  for (ssize_t count = 0; (count = ::read(in, buffer.data(), buffer.size())) > 0;) {
    for (ssize_t done = 0; done < count;) {
      done += ::write(out, buffer.data() + done, static_cast<std::size_t>(count - done));
    }
  }
  ::close(in);
  ::close(out);
}

template <typename Copy>
void copyBench(benchmark::State& state, Copy copy) {
  const Scratch scratch(otherDevice);
  const std::string from = scratch / "from", to = scratch / "to";
  makeFile(from, copySize);
  for (auto _ : state) {
    measure(state, [&] { copy(from, to); });
    stdfs::remove(to);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(copySize) * state.iterations());
}

void copyRaw(benchmark::State& state) {
  std::vector<char> buffer(static_cast<std::size_t>(state.range(0)));
  copyBench(state, [&](const auto& from, const auto& to) { rawCopy(from, to, buffer); });
}
BENCHMARK(copyRaw)->Arg(1024)->Arg(65536)->UseManualTime()->Unit(benchmark::kMillisecond);

void copyCopier(benchmark::State& state) {
  std::vector<char> buffer(static_cast<std::size_t>(state.range(0)));
  copyBench(state, [&](const auto& from, const auto& to) {
    Copier(buffer.data(), buffer.size()).copy(from.c_str(), to.c_str());
  });
}
BENCHMARK(copyCopier)->Arg(1024)->Arg(65536)->UseManualTime()->Unit(benchmark::kMillisecond);

void copyCopierOwnBuffer(benchmark::State& state) {
  copyBench(state, [&](const auto& from, const auto& to) { Copier().copy(from.c_str(), to.c_str()); });
}
BENCHMARK(copyCopierOwnBuffer)->UseManualTime()->Unit(benchmark::kMillisecond);

// --- moving 64 MiB to another device

template <typename Move>
void moveBench(benchmark::State& state, Move move) {
  const Scratch here("/tmp"), there(otherDevice);
  const std::string from = here / "from", to = there / "to";
  for (auto _ : state) {
    makeFile(from, copySize);
    measure(state, [&] { move(from.c_str(), to.c_str()); });
    stdfs::remove(to);
  }
}

void moveOps(benchmark::State& state) {
  moveBench(state, [](const char* from, const char* to) { Ops::move(from, to); });
}
BENCHMARK(moveOps)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

void moveProgram(benchmark::State& state) {
  moveBench(state, [](const char* from, const char* to) { command({"mv", from, to}); });
}
BENCHMARK(moveProgram)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

// --- removing a tree of 10,000 files in 100 directories

void makeTree(const std::string& top) {
  for (int i = 0; i < 100; ++i) {
    const std::string below = top + "/directory-" + std::to_string(i);
    stdfs::create_directories(below);
    for (int j = 0; j < 100; ++j) {
      ::close(::open((below + "/file-" + std::to_string(j)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    }
  }
}

/// The floor: one unlinkat() for each entry, chosen by the type that readdir() gives.
void rawRemove(int parent, const char* name) {
  const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const dir = ::fdopendir(fd);
  while (const dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    entry->d_type == DT_DIR ? rawRemove(fd, entry->d_name) : void(::unlinkat(fd, entry->d_name, 0));
  }
  ::closedir(dir);
  ::unlinkat(parent, name, AT_REMOVEDIR);
}

template <typename Remove>
void removeBench(benchmark::State& state, Remove remove) {
  const Scratch scratch(state.range(0) != 0 ? otherDevice : "/tmp");
  const std::string top = scratch / "tree";
  for (auto _ : state) {
    makeTree(top);
    measure(state, [&] { remove(top.c_str()); });
  }
  if (stdfs::exists(top)) state.SkipWithError("the tree is still there");
  state.SetLabel(state.range(0) != 0 ? "memory" : "disk");
}

void removeRaw(benchmark::State& state) {
  removeBench(state, [](const char* top) { rawRemove(AT_FDCWD, top); });
}
void removeOps(benchmark::State& state) { removeBench(state, Ops::removeTree); }
void removeStandardLibrary(benchmark::State& state) {
  removeBench(state, [](const char* top) { stdfs::remove_all(top); });
}
void removeProgram(benchmark::State& state) {
  removeBench(state, [](const char* top) { command({"rm", "-rf", top}); });
}
BENCHMARK(removeRaw)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(removeOps)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(removeStandardLibrary)
    ->Arg(0)
    ->Arg(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5);
BENCHMARK(removeProgram)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
