#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "kespal/time/Clock.h"
#include "pcaplib/capture.h"
#include "support/Calls.h"
#include "support/TempDir.h"

namespace kes::test {

// Every file that the writer opens, and every write, comes through here.
inline int lastOpenFlags = 0;
inline bool opensCancelled = false;  // the thread is cancelled once it has the file
inline std::vector<std::size_t> writeSizes;
inline int signalAfterOpen = 0;
inline int signalAfterWrite = 0;  // comes when the bytes are out and the call has not returned
inline bool writesInTwo = false;  // the next write takes its first piece only

inline const Instead<Call::open> openHere([](const char* path, int flags, void* mode) {
  lastOpenFlags = flags;
  const int fd = real<Call::open>(path, flags, mode);
  if (opensCancelled) ::pthread_cancel(::pthread_self());
  if (signalAfterOpen != 0) ::raise(signalAfterOpen);
  return fd;
});

inline const Instead<Call::writev> writevHere([](int fd, const iovec* pieces, int count) -> ssize_t {
  const int taken = std::exchange(writesInTwo, false) ? 1 : count;
  writeSizes.push_back(
      std::accumulate(pieces, pieces + taken, std::size_t{0},
                      [](std::size_t sum, const iovec& each) { return sum + each.iov_len; }));
  const ssize_t written = real<Call::writev>(fd, pieces, taken);
  if (signalAfterWrite != 0) ::raise(signalAfterWrite);
  return written;
});

inline bool dump(const std::string& packet, PCAP_TYPE type = PCAP_ETHERNET) {
  return DumpPacket(reinterpret_cast<const unsigned char*>(packet.data()),
                    static_cast<unsigned int>(packet.size()), type);
}

/// The next descriptor that this process would get.
inline int nextDescriptor() {
  const int fd = ::dup(0);
  ::close(fd);
  return fd;
}

inline bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

class CaptureTest : public testing::Test {
 protected:
  void SetUp() override {
    kes::time::ClockBase::init();
    std::memcpy(cap_types, m_pristine, sizeof m_pristine);
    writeSizes.clear();
  }

  static void SetUpTestSuite() { std::memcpy(m_pristine, cap_types, sizeof m_pristine); }

  TempDir dir_;
  const std::string file_ = dir_ / "capture.pcap";

 private:
  static inline CaptureType m_pristine[3];
};

}  // namespace kes::test
