#include "Transfer.h"

#include <unistd.h>

#include "sys/Retry.h"

namespace kes::pcap {

HeldSignals::HeldSignals() {
  sigset_t ending;
  sigemptyset(&ending);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ}) sigaddset(&ending, number);
  isHolding_ = ::pthread_sigmask(SIG_BLOCK, &ending, &before_) == 0;
}

HeldSignals::~HeldSignals() {
  if (isHolding_) ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

iovec pieceOf(const void* data, std::size_t size) { return {const_cast<void*>(data), size}; }

std::size_t sizeOf(std::span<const iovec> pieces) {
  std::size_t size = 0;
  for (const iovec& piece : pieces) size += piece.iov_len;
  return size;
}

std::span<iovec> behind(std::span<iovec> pieces, std::size_t written) {
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

ssize_t writeOnce(int fd, std::span<const iovec> pieces) {
  return sys::retry([&] { return ::writev(fd, pieces.data(), static_cast<int>(pieces.size())); });
}

bool takeBack(int fd, std::size_t written) {
  const off_t end = ::lseek(fd, 0, SEEK_CUR), size = static_cast<off_t>(written);
  return end >= size && sys::retry([&] { return ::ftruncate(fd, end - size); }) == 0;
}

}  // namespace kes::pcap
