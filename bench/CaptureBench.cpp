#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"

#ifdef KES_BENCH_PCAP
#include <pcap/pcap.h>
#endif

// Clock readings against the bare system call, and appending a packet against the bare calls that it takes.

namespace {

void RawClock(benchmark::State& state) {
  timespec now;
  for (auto _ : state) {
    clock_gettime(CLOCK_REALTIME, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(RawClock);

void ClockConstruction(benchmark::State& state) {
  kes::time::ClockBase::init();
  for (auto _ : state) {
    kes::time::RealtimeClock clock;
    benchmark::DoNotOptimize(clock);
  }
}
BENCHMARK(ClockConstruction);

void ClockUpdate(benchmark::State& state) {
  kes::time::ClockBase::init();
  kes::time::RealtimeClock clock;
  kes::time::ClockBase* base = &clock;
  benchmark::DoNotOptimize(base);
  for (auto _ : state) base->update();
}
BENCHMARK(ClockUpdate);

/// A capture file that is emptied before it gets large. TMPDIR chooses the file system.
class CaptureFile {
 public:
  CaptureFile() {
    const char* folder = std::getenv("TMPDIR");
    path_ = std::string(folder != nullptr ? folder : "/tmp") + "/kes-bench.pcap";
    kes::time::ClockBase::init();
    DumpOpen(path_.c_str(), PCAP_ETHERNET);
  }
  ~CaptureFile() { ::unlink(path_.c_str()); }

  const char* path() const { return path_.c_str(); }

  void keepSmall(benchmark::State& state) {
    constexpr unsigned manyPackets = 10'000;
    if (++packets_ % manyPackets != 0) return;
    state.PauseTiming();
    DumpOpen(path_.c_str(), PCAP_ETHERNET);
    state.ResumeTiming();
  }

 private:
  std::string path_;
  unsigned packets_ = 0;
};

void RawAppend(benchmark::State& state) {
  CaptureFile file;
  std::vector<char> packet(static_cast<std::size_t>(state.range(0)));
  char header[16] = {};
  for (auto _ : state) {
    const int fd = ::open(file.path(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    const iovec pieces[] = {{header, sizeof header}, {packet.data(), packet.size()}};
    benchmark::DoNotOptimize(::writev(fd, pieces, 2));
    ::close(fd);
    file.keepSmall(state);
  }
}
BENCHMARK(RawAppend)->Arg(64)->Arg(1500);

void PacketAppend(benchmark::State& state) {
  CaptureFile file;
  const std::vector<unsigned char> packet(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    DumpPacket(packet.data(), static_cast<unsigned>(packet.size()), PCAP_ETHERNET);
    file.keepSmall(state);
  }
}
BENCHMARK(PacketAppend)->Arg(64)->Arg(1500);

#ifdef KES_BENCH_PCAP
void LibpcapAppend(benchmark::State& state) {
  CaptureFile file;
  const std::vector<unsigned char> packet(static_cast<std::size_t>(state.range(0)));
  pcap_t* handle = ::pcap_open_dead(DLT_EN10MB, 65535);
  pcap_pkthdr header{};
  header.caplen = header.len = static_cast<bpf_u_int32>(packet.size());
  for (auto _ : state) {
    pcap_dumper_t* dumper = ::pcap_dump_open_append(handle, file.path());
    ::pcap_dump(reinterpret_cast<u_char*>(dumper), &header, packet.data());
    ::pcap_dump_close(dumper);
    file.keepSmall(state);
  }
  ::pcap_close(handle);
}
BENCHMARK(LibpcapAppend)->Arg(64)->Arg(1500);
#endif

}  // namespace
