#pragma once

#include <IOKit/IOReturn.h>

#include <array>
#include <cstdint>
#include <mutex>

#include "sys/Owner.h"
#include "wire/Wire.h"

namespace kes::iokit {

/// What a call sends.
struct Input {
  Kind kind = Kind::Call;
  std::uint32_t selector = 0;
  std::span<const std::uint64_t> scalars;
  Bytes structure;
};

/// Where a call's results go: capacities before, amounts after; unchanged on failure.
struct Output {
  std::span<std::uint64_t> scalars;
  std::span<std::uint8_t> structure;
};

/// One user client: a socket to the driver, with one exchange at a time. Thread-safe.
class Connection {
 public:
  explicit Connection(sys::Descriptor socket) : socket_(std::move(socket)) {}

  /// Sends a request and waits for its reply, however long that takes. The results are the driver's, or
  /// MACH_SEND_INVALID_DEST (it is gone), kIOReturnNoSpace (more than fits), kIOReturnIPCError (no reply to
  /// this request).
  IOReturn exchange(const Input& input, Output& output);

 private:
  IOReturn send(const Input& input, const Output& output);
  IOReturn receive(const Expectation& expected, Output& output);

  std::mutex mutex_;
  sys::Descriptor socket_;
  std::uint32_t sequence_ = 0;
  std::uint32_t unanswered_ = 0;  // the calls since the last one that got its reply
  std::array<std::uint8_t, maxRequest> buffer_{};
};

}  // namespace kes::iokit
