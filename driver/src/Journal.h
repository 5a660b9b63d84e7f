#pragma once

#include <cstdio>
#include <string>

#include "Driver.h"
#include "wire/Wire.h"

namespace kes::driver {

/// What --verbose prints: every connection, request and reply on a line of its own, at once.
class Journal {
 public:
  Journal(std::FILE* out, bool verbose) : out_(out), verbose_(verbose) {}

  void connected(const Session& session);
  void received(const Session& session, const Call& call);
  /// A datagram that is no request.
  void malformed(const Session& session, iokit::Bytes datagram);
  void sent(const Session& session, iokit::Bytes datagram);
  void closed(const Session& session, const char* why);

 private:
  void line(const Session& session, const std::string& text);

  std::FILE* out_;
  bool verbose_;
};

}  // namespace kes::driver
