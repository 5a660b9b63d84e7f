// One packet on its way from the stand-in into the analyser's pipe, by kestrace-extcap, against a bare loop
// of the same calls that drops what it gets. Nothing is lost in either: the stand-in hands the next packet to
// who asks. Argument: bytes a packet.
#include <IOKit/IOKitLib.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t packetsPerTurn = 20'000;
constexpr std::size_t fileHeader = 24, recordHeader = 16;

/// A program without input and output that ends with the object.
class Program {
 public:
  explicit Program(std::vector<std::string> words) {
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn(&pid_, arguments[0], &files, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&files);
  }
  ~Program() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  pid_t pid_ = -1;
};

/// The stand-in, which serves one packet again and again.
class StandIn {
 public:
  explicit StandIn(std::size_t size) {
    writeCapture(size);
    ::setenv("KES_IOREGISTRY", path("").c_str(), 1);
    program_ = std::make_unique<Program>(
        std::vector<std::string>{KESDRIVER, "--dir", path(""), "--replay", path("capture"), "--loop"});
    while (!fs::exists(path("kes_vpn_driver_keslbmac.sock"))) ::usleep(1000);
  }
  ~StandIn() {
    program_.reset();
    fs::remove_all(directory_);
  }
  StandIn(const StandIn&) = delete;
  StandIn& operator=(const StandIn&) = delete;

  std::string path(const std::string& name) const { return directory_ + '/' + name; }

 private:
  void writeCapture(std::size_t size) const {
    std::ofstream file(path("capture"), std::ios::binary);
    const std::uint32_t header[]{0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
    const auto length = static_cast<std::uint32_t>(size);
    const std::uint32_t record[]{0, 0, length, length};
    file.write(reinterpret_cast<const char*>(header), sizeof header);
    for (int i = 0; i < 10'000; ++i) {
      file.write(reinterpret_cast<const char*>(record), sizeof record);
      file << std::string(size, 'x');
    }
  }

  static std::string makeDirectory() {
    char name[] = "/tmp/kes-bench-XXXXXX";
    return ::mkdtemp(name);
  }

  std::string directory_ = makeDirectory();
  std::unique_ptr<Program> program_;
};

void count(benchmark::State& state) {
  state.counters["packets/s"] = benchmark::Counter(static_cast<double>(state.iterations() * packetsPerTurn),
                                                   benchmark::Counter::kIsRate);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(64)->Arg(1500)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);
}

void bareLoop(benchmark::State& state) {
  const StandIn driver(static_cast<std::size_t>(state.range(0)));
  const io_service_t service =
      ::IOServiceGetMatchingService(kIOMasterPortDefault, ::IOServiceMatching("kes_vpn_driver_keslbmac"));
  io_connect_t connect = 0;
  const std::uint64_t type = 2;
  ::IOServiceOpen(service, mach_task_self(), 0, &connect);
  ::IOConnectCallScalarMethod(connect, 0, &type, 1, nullptr, nullptr);
  std::array<unsigned char, 4096> packet;
  for (auto _ : state) {
    for (std::size_t i = 0; i < packetsPerTurn; ++i) {
      std::size_t size = packet.size();
      ::IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 0, nullptr, nullptr, packet.data(), &size);
      if (size == 0) return state.SkipWithError("no packet");
    }
  }
  count(state);
  ::IOServiceClose(connect);
  ::IOObjectRelease(service);
}
BENCHMARK(bareLoop)->Apply(sizes);

bool readWhole(int fd, std::size_t size) {
  static std::array<char, 1 << 16> bytes;
  while (size > 0) {
    const ssize_t got = ::read(fd, bytes.data(), std::min(size, bytes.size()));
    if (got <= 0) return false;
    size -= static_cast<std::size_t>(got);
  }
  return true;
}

void intoThePipe(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const StandIn driver(size);
  const std::string pipe = driver.path("pipe");
  ::mkfifo(pipe.c_str(), 0600);
  const Program program({EXTCAP, "--capture", "--fifo", pipe});
  const int reader = ::open(pipe.c_str(), O_RDONLY | O_CLOEXEC);
  if (!readWhole(reader, fileHeader)) return state.SkipWithError("no capture");
  for (auto _ : state) {
    if (!readWhole(reader, packetsPerTurn * (recordHeader + size))) return state.SkipWithError("no packet");
  }
  count(state);
  ::close(reader);
}
BENCHMARK(intoThePipe)->Apply(sizes);

}  // namespace
