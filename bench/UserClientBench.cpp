// One user-client call: the client's side against a bare round trip over the same kind of socket, and the
// whole of it against kesdriver. Everything on one CPU, so that the scheduler's choice of CPUs is not
// measured.
#include <IOKit/IOKitLib.h>
#include <benchmark/benchmark.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "wire/Unix.h"
#include "wire/Wire.h"

namespace {

using namespace kes::iokit;

constexpr std::size_t sequenceOffset = 8;
constexpr char driverClass[] = "kes_vpn_driver_keslbmac";

void stayOnOneCpu() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
  ::sched_setaffinity(0, sizeof one, &one);
}

/// A private registry directory and a process that serves it, both gone with the object.
class Peer {
 public:
  explicit Peer(const std::function<void(const std::string& directory)>& serve) {
    stayOnOneCpu();
    char name[] = "/tmp/kes-bench-XXXXXX";
    directory_ = ::mkdtemp(name);
    ::setenv("KES_IOREGISTRY", directory_.c_str(), 1);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      serve(directory_);
      ::_exit(1);
    }
    while (::access(socket().c_str(), F_OK) != 0) ::usleep(1000);
  }
  ~Peer() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    static_cast<void>(std::system(("rm -r " + directory_).c_str()));
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  std::string socket() const { return socketPath(directory_, driverClass); }

  /// The CPU time of both ends up to now, in seconds.
  double cpuTime() const {
    clockid_t clock{};
    ::clock_getcpuclockid(pid_, &clock);
    return read(clock) + read(CLOCK_PROCESS_CPUTIME_ID);
  }

 private:
  static double read(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
  }

  std::string directory_;
  pid_t pid_ = -1;
};

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

/// Gives every request of one client at a time the same reply, with the request's sequence in it.
void echo(const std::string& directory, std::size_t size) {
  const auto address = *addressOf(socketPath(directory, driverClass));
  const kes::sys::Descriptor listener = makeSocket();
  if (::bind(listener.get(), generic(address), sizeof address) != 0 || ::listen(listener.get(), 1) != 0)
    return;
  RequestHeader request;
  request.kind = static_cast<std::uint16_t>(Kind::Call);
  std::vector<std::uint8_t> call, open;
  makeReply(call, replyTo(request), {}, std::vector<std::uint8_t>(size));
  request.kind = static_cast<std::uint16_t>(Kind::Open);
  makeReply(open, replyTo(request), {}, {});
  std::array<std::uint8_t, maxRequest> buffer;
  for (;;) {
    const kes::sys::Descriptor client(::accept(listener.get(), nullptr, nullptr));
    while (::recv(client.get(), buffer.data(), buffer.size(), 0) > 0) {
      auto& reply = buffer[6] == 1 ? open : call;
      std::memcpy(reply.data() + sequenceOffset, buffer.data() + sequenceOffset, 4);
      ::send(client.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    }
  }
}

void serveWithKesdriver(const std::string& directory, std::size_t size) {
  const std::string capture = directory + "/capture";
  std::ofstream file(capture, std::ios::binary);
  const std::uint32_t header[]{0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
  const auto length = static_cast<std::uint32_t>(size);
  const std::uint32_t record[]{0, 0, length, length};
  file.write(reinterpret_cast<const char*>(header), sizeof header);
  for (int i = 0; i < 10000; ++i) {
    file.write(reinterpret_cast<const char*>(record), sizeof record);
    file << std::string(size, 'x');
  }
  file.close();
  if (::freopen("/dev/null", "w", stdout) == nullptr) return;
  ::execl(KESDRIVER, KESDRIVER, "--dir", directory.c_str(), "--replay", capture.c_str(), "--loop", nullptr);
}

constexpr int callsPerTurn = 2000;
constexpr int turns = 10;

/// Measures `call`; a result of false ends it.
template <typename Call>
void measure(benchmark::State& state, const Peer& peer, Call call) {
  for (auto _ : state) {
    const double start = peer.cpuTime();
    for (int i = 0; i < callsPerTurn; ++i) {
      if (!call()) return state.SkipWithError("no reply");
    }
    state.SetIterationTime((peer.cpuTime() - start) / callsPerTurn);
  }
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(0)->Arg(64)->Arg(1500)->Iterations(turns)->UseManualTime();
}

/// The floor: the same bytes to and fro, by hand.
void rawRoundTrip(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const Peer peer([&](const std::string& directory) { echo(directory, size); });
  const kes::sys::Descriptor socket = makeSocket();
  const auto address = *addressOf(peer.socket());
  while (::connect(socket.get(), generic(address), sizeof address) != 0) ::usleep(1000);
  std::array<std::uint8_t, requestHeaderSize> request{};
  std::array<std::uint8_t, maxReply> reply;
  measure(state, peer, [&] {
    ::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
    return ::recv(socket.get(), reply.data(), reply.size(), 0) > 0;
  });
}
BENCHMARK(rawRoundTrip)->Apply(sizes);

void measureCalls(benchmark::State& state, const Peer& peer, std::size_t size) {
  io_service_t service = 0;
  while ((service = IOServiceGetMatchingService(kIOMasterPortDefault, IOServiceMatching(driverClass))) == 0) {
    ::usleep(1000);
  }
  io_connect_t connect = 0;
  const std::uint64_t type = 2;
  IOServiceOpen(service, mach_task_self(), 0, &connect);
  IOConnectCallScalarMethod(connect, 0, &type, 1, nullptr, nullptr);
  std::array<std::uint8_t, 4096> packet;
  measure(state, peer, [&] {
    std::size_t count = packet.size();
    const kern_return_t result =
        IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 0, nullptr, nullptr, packet.data(), &count);
    return result == kIOReturnSuccess && count == size;
  });
  IOServiceClose(connect);
  IOObjectRelease(service);
}

void callOfEchoPeer(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const Peer peer([&](const std::string& directory) { echo(directory, size); });
  measureCalls(state, peer, size);
}
BENCHMARK(callOfEchoPeer)->Apply(sizes);

void callOfKesdriver(benchmark::State& state) {
  const auto size = static_cast<std::size_t>(state.range(0));
  const Peer peer([&](const std::string& directory) { serveWithKesdriver(directory, size); });
  measureCalls(state, peer, size);
}
BENCHMARK(callOfKesdriver)->Apply(sizes);

}  // namespace
