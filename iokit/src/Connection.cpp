#include "Connection.h"

#include <sys/socket.h>

#include <algorithm>

#include "sys/Retry.h"

namespace kes::iokit {
namespace {

static_assert(maxReply <= maxRequest, "one buffer serves both directions");

bool isGone(int error) {
  return error == EPIPE || error == ECONNRESET || error == ENOTCONN || error == ECONNREFUSED;
}

IOReturn resultOf(int error) { return isGone(error) ? MACH_SEND_INVALID_DEST : kIOReturnIPCError; }

IOReturn deliver(const Reply& reply, Output& output) {
  const auto result = static_cast<IOReturn>(reply.header.result);
  if (result != kIOReturnSuccess) return result;
  for (std::size_t i = 0; i < reply.header.scalarCount; ++i) output.scalars[i] = reply.scalar(i);
  std::copy(reply.structure.begin(), reply.structure.end(), output.structure.begin());
  output.scalars = output.scalars.first(reply.header.scalarCount);
  output.structure = output.structure.first(reply.structure.size());
  return kIOReturnSuccess;
}

}  // namespace

IOReturn Connection::exchange(const Input& input, Output& output) {
  const std::lock_guard lock(mutex_);
  // Counted before the first point where the thread may be cancelled: the reply will come all the same.
  const Expectation expected{input.kind, ++sequence_, unanswered_++, output.scalars.size(),
                             output.structure.size()};
  const IOReturn sent = send(input, output);
  return sent == kIOReturnSuccess ? receive(expected, output) : sent;
}

IOReturn Connection::send(const Input& input, const Output& output) {
  RequestHeader header;
  header.kind = static_cast<std::uint16_t>(input.kind);
  header.sequence = sequence_;
  header.selector = input.selector;
  header.scalarCount = static_cast<std::uint32_t>(input.scalars.size());
  header.structureSize = static_cast<std::uint32_t>(input.structure.size());
  header.scalarCapacity = static_cast<std::uint32_t>(output.scalars.size());
  header.structureCapacity = static_cast<std::uint32_t>(output.structure.size());
  std::uint8_t* end = encode(header, buffer_.data());
  for (const std::uint64_t scalar : input.scalars) end = encode64(scalar, end);
  end = std::copy(input.structure.begin(), input.structure.end(), end);
  const auto length = static_cast<std::size_t>(end - buffer_.data());
  const ssize_t sent =
      sys::retry([&] { return ::send(socket_.get(), buffer_.data(), length, MSG_NOSIGNAL); });
  return sent == -1 ? resultOf(errno) : kIOReturnSuccess;
}

IOReturn Connection::receive(const Expectation& expected, Output& output) {
  for (;;) {
    // MSG_TRUNC: the datagram's own length comes back, also where it does not fit.
    const ssize_t got =
        sys::retry([&] { return ::recv(socket_.get(), buffer_.data(), buffer_.size(), MSG_TRUNC); });
    if (got == -1) return resultOf(errno);
    if (got == 0) return MACH_SEND_INVALID_DEST;
    const auto length = static_cast<std::size_t>(got);
    Reply reply;
    switch (judgeReply({buffer_.data(), std::min(length, buffer_.size())}, length, expected, reply)) {
      case Verdict::Late:
        continue;
      case Verdict::Foreign:
        return kIOReturnIPCError;
      case Verdict::TooLarge:
        unanswered_ = 0;
        return kIOReturnNoSpace;
      case Verdict::Accepted:
        unanswered_ = 0;
        return deliver(reply, output);
    }
  }
}

}  // namespace kes::iokit
