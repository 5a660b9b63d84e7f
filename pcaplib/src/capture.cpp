#include "pcaplib/capture.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <span>
#include <string>

#include "FileFormat.h"
#include "NameFormat.h"
#include "kespal/NoCopy.h"
#include "kespal/time/Clock.h"

constinit CaptureType cap_types[3] = {
    {.linkType = 1, .name = "eth", .opened = 0, .path = ""},
    {.linkType = 9, .name = "ppp", .opened = 0, .path = ""},
    {.linkType = 12, .name = "ip", .opened = 0, .path = ""},
};

namespace {

using kes::pcap::FileHeader;
using kes::pcap::RecordHeader;

/// An open capture file, closed on the way out.
class CaptureFile : public kes::NoCopy {
 public:
  CaptureFile(const char* path, int flags) : fd_(::open(path, O_RDWR | O_CREAT | O_CLOEXEC | flags, 0666)) {}
  /// Not to be cancelled: a cancellation must not leave a destructor.
  ~CaptureFile() {
    if (!isOpen()) return;
    int before = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    ::close(fd_);
    ::pthread_setcancelstate(before, &before);
  }

  bool isOpen() const { return fd_ >= 0; }

  /// False for what has no position, a FIFO or a terminal: its header went out when it was opened.
  bool isEmpty() const { return ::lseek(fd_, 0, SEEK_END) == 0; }

  /// Writes all pieces, in one call where the system takes them at once, or leaves the file as it was.
  void append(std::span<iovec> pieces) {
    std::size_t written = 0;
    while (!pieces.empty()) {
      const ssize_t step = ::writev(fd_, pieces.data(), static_cast<int>(pieces.size()));
      if (step < 0 && errno == EINTR) continue;
      if (step <= 0) return takeBack(written);
      written += static_cast<std::size_t>(step);
      pieces = behind(pieces, static_cast<std::size_t>(step));
    }
  }

 private:
  /// What is left of the pieces when their first bytes are out.
  static std::span<iovec> behind(std::span<iovec> pieces, std::size_t written) {
    while (!pieces.empty() && written >= pieces.front().iov_len) {
      written -= pieces.front().iov_len;
      pieces = pieces.subspan(1);
    }
    if (!pieces.empty()) {
      pieces.front().iov_base = static_cast<char*>(pieces.front().iov_base) + written;
      pieces.front().iov_len -= written;
    }
    return pieces;
  }

  /// A torn record would make every later one unreadable.
  void takeBack(std::size_t written) {
    const off_t end = ::lseek(fd_, 0, SEEK_CUR);
    if (written == 0 || end < 0) return;
    // Nothing is left to try should this fail, too.
    static_cast<void>(::ftruncate(fd_, end - static_cast<off_t>(written)) == 0);
  }

  int fd_;
};

template <typename T>
iovec piece(const T& record) {
  return {const_cast<T*>(&record), sizeof record};
}

RecordHeader stampedHeader(unsigned int length) {
  const kes::time::RealtimeClock now;
  const std::int64_t micros = now.sec() * std::int64_t{1'000'000} + now.nsec() / 1000;
  return {.seconds = static_cast<std::uint32_t>(micros / 1'000'000),
          .microseconds = static_cast<std::uint32_t>(micros % 1'000'000),
          .capturedLength = length,
          .wireLength = length};
}

/// Leaves an empty path, which cannot be opened, when the name does not fit.
void buildPath(CaptureType& entry, const char* fileName) {
  const bool isNamed = fileName != nullptr && *fileName != '\0';
  const std::string path = kes::pcap::expandName(isNamed ? fileName : "/kes_dump_%s.pcap", entry.name,
                                                 isNamed ? fileName : "", sizeof entry.path);
  const bool fits = path.size() < sizeof entry.path;
  std::memcpy(entry.path, fits ? path.c_str() : "", fits ? path.size() + 1 : 1);
}

}  // namespace

bool DumpOpen(const char* fileName, PCAP_TYPE type) {
  if (type >= std::size(cap_types)) return false;
  CaptureType& entry = cap_types[type];
  buildPath(entry, fileName);
  CaptureFile file(entry.path, O_TRUNC);
  if (!file.isOpen()) return false;
  const FileHeader header{.linkType = entry.linkType};
  iovec pieces[] = {piece(header)};
  file.append(pieces);
  entry.opened = 1;
  return true;
}

bool DumpPacket(const unsigned char* data, unsigned int length, PCAP_TYPE type) {
  if (type >= std::size(cap_types)) return false;
  const CaptureType& entry = cap_types[type];
  if (entry.opened == 0) DumpOpen(nullptr, type);
  CaptureFile file(entry.path, O_APPEND);
  if (!file.isOpen()) return false;
  const FileHeader fileHeader{.linkType = entry.linkType};
  const RecordHeader recordHeader = stampedHeader(length);
  iovec pieces[] = {piece(fileHeader), piece(recordHeader), {const_cast<unsigned char*>(data), length}};
  file.append(file.isEmpty() ? std::span(pieces) : std::span(pieces).subspan(1));
  return true;
}
