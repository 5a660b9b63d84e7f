#include "pcaplib/capture.h"

#include <fcntl.h>
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
#include "Transfer.h"
#include "kespal/NoCopy.h"
#include "kespal/time/Clock.h"
#include "sys/Owner.h"

constinit CaptureType cap_types[3] = {
    {.linkType = 1, .name = "eth", .opened = 0, .path = ""},
    {.linkType = 9, .name = "ppp", .opened = 0, .path = ""},
    {.linkType = 12, .name = "ip", .opened = 0, .path = ""},
};

namespace {

using kes::pcap::behind;
using kes::pcap::FileHeader;
using kes::pcap::HeldSignals;
using kes::pcap::pieceOf;
using kes::pcap::RecordHeader;
using kes::pcap::sizeOf;
using kes::pcap::takeBack;
using kes::pcap::writeOnce;

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
  /// A torn record would make every later one unreadable. Nothing is left to try should taking it back fail.
  void appendWholeOrNotAtAll(std::span<iovec> pieces) const {
    const HeldSignals untilWholeOrBack;
    const ssize_t written = writeOnce(fd_.get(), pieces);
    if (written <= 0 || static_cast<std::size_t>(written) == sizeOf(pieces)) return;
    takeBack(fd_.get(), static_cast<std::size_t>(written));
  }

  /// Passes all pieces on to a reader, who may take them in parts. What is on its way cannot be taken back,
  /// and a reader may be slow: signals find us as ever.
  void pass(std::span<iovec> pieces) const {
    while (!pieces.empty()) {
      const ssize_t written = writeOnce(fd_.get(), pieces);
      if (written <= 0) return;
      pieces = behind(pieces, static_cast<std::size_t>(written));
    }
  }

  kes::sys::Descriptor fd_;
  off_t end_ = 0;
  bool isFile_ = false;
};

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
  iovec pieces[] = {pieceOf(&header, sizeof header)};
  if ((flags & O_TRUNC) != 0 || file.isEmptyFile()) file.append(pieces);
  return true;
}

/// False, with errno, if the file cannot be opened.
bool append(const CaptureType& entry, const unsigned char* data, unsigned int length) {
  CaptureFile file(entry.path, O_APPEND);
  if (!file.isOpen()) return false;
  const FileHeader fileHeader{.linkType = entry.linkType};
  const RecordHeader recordHeader = stampedHeader(length);
  iovec pieces[] = {pieceOf(&fileHeader, sizeof fileHeader), pieceOf(&recordHeader, sizeof recordHeader),
                    pieceOf(data, length)};
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
