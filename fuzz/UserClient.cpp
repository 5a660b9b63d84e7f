// The client's side: what a driver may send it. The input is a row of datagrams, each after its length in two
// bytes; they wait in the socket when the calls are made, and after them the driver is gone.
#include <sys/socket.h>

#include <array>
#include <vector>

#include "Connection.h"
#include "Target.h"

using namespace kes::iokit;

namespace {

/// Takes the next datagram off the input.
Bytes nextDatagram(Bytes& input) {
  if (input.size() < 2) return {};
  const std::size_t length = std::min(input[0] + std::size_t{256} * input[1], input.size() - 2);
  const Bytes datagram = input.subspan(2, length);
  input = input.subspan(2 + length);
  return datagram;
}

void callOnce(Connection& connection, std::size_t capacity) {
  // Exactly as large as promised: a byte too many is found by the sanitizer.
  std::vector<std::uint8_t> structure(capacity);
  std::vector<std::uint64_t> scalars(capacity % 4);
  Output output{scalars, structure};
  const IOReturn result = connection.exchange({Kind::Call, 2, {}, {}}, output);
  if (result == kIOReturnSuccess &&
      (output.structure.size() > capacity || output.scalars.size() > capacity % 4)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return 0;
  const kes::sys::Descriptor driver(ends[1]);
  Connection connection{kes::sys::Descriptor(ends[0])};
  Bytes input(data, size);
  for (int i = 0; i < 8; ++i) {
    const Bytes datagram = nextDatagram(input);
    if (!datagram.empty())
      ::send(driver.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }
  ::shutdown(driver.get(), SHUT_WR);
  for (const std::size_t capacity : {4096u, 2u, 0u, 100u}) callOnce(connection, capacity);
  return 0;
}
