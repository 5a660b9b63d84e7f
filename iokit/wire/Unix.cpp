#include "wire/Unix.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace kes::iokit {

sys::Descriptor makeSocket() {
  sys::Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!socket || socket.get() > STDERR_FILENO) return socket;
  return sys::Descriptor(::fcntl(socket.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

std::optional<sockaddr_un> addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

std::string socketPath(const std::string& directory, const std::string& serviceClass) {
  return directory + '/' + serviceClass + ".sock";
}

std::string registryDirectory() {
  const char* directory = std::getenv("KES_IOREGISTRY");
  return directory != nullptr && *directory != '\0' ? directory : "/run/kes";
}

}  // namespace kes::iokit
