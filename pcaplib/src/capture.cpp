#include "pcaplib/capture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <string>

#include "FileFormat.h"
#include "NameFormat.h"
#include "kespal/NoCopy.h"
#include "kespal/time/Clock.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

constinit CaptureType cap_types[3] = {
    {.linkType = 1, .name = "eth", .opened = 0, .path = ""},
    {.linkType = 9, .name = "ppp", .opened = 0, .path = ""},
    {.linkType = 12, .name = "ip", .opened = 0, .path = ""},
};

namespace {

using kes::pcap::FileHeader;
using kes::pcap::RecordHeader;

/// A signal that ends the process can end a write to a file between two memory pages; what has been written
/// stays. While this lives, those that people send wait, and so does a cancellation: until the record is
/// whole or taken back, or until the file that was emptied has its header.
class HeldSignals : public kes::NoCopy {
 public:
  HeldSignals() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) sigaddset(&ending, number);
    isHolding_ = ::pthread_sigmask(SIG_BLOCK, &ending, &before_) == 0;
  }
  ~HeldSignals() {
    if (isHolding_) ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }

 private:
  const kes::sys::NoCancel noCancel_;
  sigset_t before_;
  bool isHolding_;
};

/// An open capture file, closed on the way out.
class CaptureFile : public kes::NoCopy {
 public:
  CaptureFile(const char* path, int flags) : fd_(::open(path, O_RDWR | O_CLOEXEC | flags, 0666)) {
    struct stat status {};
    if (fd_ && ::fstat(fd_.get(), &status) != 0) fd_.reset();  // nobody knows what it would take
    isFile_ = S_ISREG(status.st_mode);
    end_ = status.st_size;
    // O_APPEND means nothing to a disk: a record would take the place of the header.
    const bool isDisk = S_ISBLK(status.st_mode) && (flags & O_APPEND) != 0;
    if (isDisk && ::lseek(fd_.get(), 0, SEEK_END) == -1) fd_.reset();
  }

  bool isOpen() const { return static_cast<bool>(fd_); }

  /// False for what is no file: its header went out when it was opened first.
  bool isEmptyFile() const { return isFile_ && end_ == 0; }

  void append(std::span<iovec> pieces) const {
    if (isFile_) {
      appendWholeOrNotAtAll(pieces);
    } else {
      pass(pieces);
    }
  }

 private:
  ssize_t write(std::span<iovec> pieces) const {
    return kes::sys::retry(
        [&] { return ::writev(fd_.get(), pieces.data(), static_cast<int>(pieces.size())); });
  }

  /// A torn record would make every later one unreadable. Nothing is left to try should taking it back fail.
  void appendWholeOrNotAtAll(std::span<iovec> pieces) const {
    const HeldSignals untilWholeOrBack;
    const ssize_t written = write(pieces);
    if (written <= 0 || static_cast<std::size_t>(written) == sizeOf(pieces)) return;
    const off_t end = ::lseek(fd_.get(), 0, SEEK_CUR);
    if (end >= written) kes::sys::retry([&] { return ::ftruncate(fd_.get(), end - written); });
  }

  /// Passes all pieces on to a reader, who may take them in parts. What is on its way cannot be taken back,
  /// and a reader may be slow: signals find us as ever.
  void pass(std::span<iovec> pieces) const {
    while (!pieces.empty()) {
      const ssize_t written = write(pieces);
      if (written <= 0) return;
      pieces = behind(pieces, static_cast<std::size_t>(written));
    }
  }

  static std::size_t sizeOf(std::span<const iovec> pieces) {
    std::size_t size = 0;
    for (const iovec& piece : pieces) size += piece.iov_len;
    return size;
  }

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

  kes::sys::Descriptor fd_;
  off_t end_ = 0;
  bool isFile_ = false;
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

/// Leaves an empty path, which cannot be opened, when the name does not fit, or what it stands for.
void buildPath(CaptureType& entry, const char* fileName) {
  const std::size_t size = sizeof entry.path;
  const bool isNamed = fileName != nullptr && *fileName != '\0';
  const bool isShort = !isNamed || ::strnlen(fileName, size) < size;
  const std::string path = kes::pcap::expandName(isNamed ? fileName : "/kes_dump_%s.pcap", entry.name,
                                                 isNamed ? fileName : "", size);
  const bool fits = isShort && path.size() < size;
  std::memcpy(entry.path, fits ? path.c_str() : "", fits ? path.size() + 1 : 1);
}

/// What opening it makes or empties. To open anything else may take long: a serial line waits for its peer.
bool isOrBecomesFile(const char* path) {
  struct stat status {};
  return ::stat(path, &status) != 0 || S_ISREG(status.st_mode);
}

/// Makes what is missing. What is emptied here, or is an empty file, gets its header.
bool start(const CaptureType& entry, int flags) {
  std::optional<HeldSignals> untilItHasItsHeader;
  if (isOrBecomesFile(entry.path)) untilItHasItsHeader.emplace();
  CaptureFile file(entry.path, O_CREAT | flags);
  if (!file.isOpen()) return false;
  const FileHeader header{.linkType = entry.linkType};
  iovec pieces[] = {piece(header)};
  if ((flags & O_TRUNC) != 0 || file.isEmptyFile()) file.append(pieces);
  return true;
}

/// False, with errno, if the file cannot be opened.
bool append(const CaptureType& entry, const unsigned char* data, unsigned int length) {
  CaptureFile file(entry.path, O_APPEND);
  if (!file.isOpen()) return false;
  const FileHeader fileHeader{.linkType = entry.linkType};
  const RecordHeader recordHeader = stampedHeader(length);
  iovec pieces[] = {piece(fileHeader), piece(recordHeader), {const_cast<unsigned char*>(data), length}};
  file.append(file.isEmptyFile() ? std::span(pieces) : std::span(pieces).subspan(1));
  return true;
}

}  // namespace

bool DumpOpen(const char* fileName, PCAP_TYPE type) {
  if (type >= std::size(cap_types)) return false;
  CaptureType& entry = cap_types[type];
  buildPath(entry, fileName);
  if (!start(entry, O_TRUNC)) return false;
  entry.opened = 1;
  return true;
}

bool DumpPacket(const unsigned char* data, unsigned int length, PCAP_TYPE type) {
  if (type >= std::size(cap_types)) return false;
  const CaptureType& entry = cap_types[type];
  if (entry.opened == 0) DumpOpen(nullptr, type);
  if (append(entry, data, length)) return true;
  return errno == ENOENT && start(entry, O_APPEND) && append(entry, data, length);
}
