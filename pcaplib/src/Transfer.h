#pragma once

#include <signal.h>
#include <sys/uio.h>

#include <cstddef>
#include <span>

#include "kespal/NoCopy.h"
#include "sys/NoCancel.h"

namespace kes::pcap {

/// A signal that ends the process can end a write to a file between two memory pages; what has been written
/// stays. While this lives, those that people send wait, and so does a cancellation: until the record is
/// whole or taken back, or until the file that was emptied has its header.
class HeldSignals : public NoCopy {
 public:
  HeldSignals();
  ~HeldSignals();

 private:
  const sys::NoCancel noCancel_;
  sigset_t before_;
  bool isHolding_;
};

iovec pieceOf(const void* data, std::size_t size);

/// In bytes.
std::size_t sizeOf(std::span<const iovec> pieces);

/// What is left of the pieces when their first bytes are out.
std::span<iovec> behind(std::span<iovec> pieces, std::size_t written);

/// One writev() that is repeated when a signal comes before the first byte.
ssize_t writeOnce(int fd, std::span<const iovec> pieces);

/// Takes the last bytes that were written to a file out of it again. False if they stay.
bool takeBack(int fd, std::size_t written);

}  // namespace kes::pcap
