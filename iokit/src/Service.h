#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "wire/Unix.h"

namespace kes::iokit {

/// A matched service: a driver that listened when it was looked for. The socket that proved it becomes the
/// first user client, so that matching leaves no connection of its own at the driver. Thread-safe.
class Service {
 public:
  /// The service of a class, or nothing: no socket, nobody listening, or a foreign owner.
  static std::optional<sys::Descriptor> find(const std::string& serviceClass);

  Service(std::string serviceClass, sys::Descriptor matched)
      : serviceClass_(std::move(serviceClass)), matched_(std::move(matched)) {}

  /// A connected socket for one user client; none when the driver has gone.
  sys::Descriptor connect();

 private:
  std::string serviceClass_;
  std::mutex mutex_;
  sys::Descriptor matched_;
};

}  // namespace kes::iokit
