#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>

namespace kes::iokit {

/// Owns a file descriptor; -1 is none. Movable.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

/// Repeats a system call while a signal interrupts it.
template <typename Call>
auto retry(Call call) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

/// A close-on-exec SOCK_SEQPACKET socket above the standard descriptors: where those are closed, a program's
/// output must not end up in a socket. None (errno says why) when there are no descriptors left.
Descriptor makeSocket();

/// The address of a socket file; nothing when the path does not fit.
std::optional<sockaddr_un> addressOf(const std::string& path);

/// <directory>/<service class>.sock
std::string socketPath(const std::string& directory, const std::string& serviceClass);
/// The directory of the sockets: KES_IOREGISTRY, or /run/kes.
std::string registryDirectory();

}  // namespace kes::iokit
