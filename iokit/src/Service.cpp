#include "Service.h"

#include <sys/stat.h>
#include <unistd.h>

#include "sys/Retry.h"

namespace kes::iokit {
namespace {

bool isTrusted(uid_t owner) { return owner == 0 || owner == ::geteuid(); }

bool hasTrustedOwner(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode) && isTrusted(info.st_uid);
}

// Whoever listens, too: between the look at the file and the connection it may have been replaced.
bool hasTrustedPeer(const sys::Descriptor& socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && isTrusted(peer.uid);
}

}  // namespace

std::optional<sys::Descriptor> Service::find(const std::string& serviceClass) {
  if (serviceClass.empty() || serviceClass.find('/') != std::string::npos) return std::nullopt;
  const std::string path = socketPath(registryDirectory(), serviceClass);
  const auto address = addressOf(path);
  if (!address || !hasTrustedOwner(path)) return std::nullopt;
  sys::Descriptor socket = makeSocket();
  if (!socket) return std::nullopt;
  const auto* name = reinterpret_cast<const sockaddr*>(&*address);
  if (sys::retry([&] { return ::connect(socket.get(), name, sizeof *address); }) != 0) return std::nullopt;
  if (!hasTrustedPeer(socket)) return std::nullopt;
  return socket;
}

sys::Descriptor Service::connect() {
  const std::lock_guard lock(mutex_);
  if (matched_) return std::move(matched_);
  return find(serviceClass_).value_or(sys::Descriptor());
}

}  // namespace kes::iokit
