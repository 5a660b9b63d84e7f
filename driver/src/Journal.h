#pragma once

#include <cstdio>
#include <string>

#include "Driver.h"
#include "wire/Wire.h"

namespace kes::driver {

/// Every connection, request and reply on a line of its own, at once: for people (--verbose), for programs
/// (--journal, an object of JSON each), or both.
class Journal {
 public:
  /// Null for a form that nobody wants. The streams are their owner's.
  Journal(std::FILE* lines, std::FILE* json) : lines_(lines), json_(json) {}

  void connected(const Session& session);
  void received(const Session& session, const Call& call);
  /// A datagram that is no request.
  void malformed(const Session& session, iokit::Bytes datagram);
  void sent(const Session& session, iokit::Bytes datagram);
  void closed(const Session& session, const char* why);

 private:
  void line(const Session& session, const std::string& text);
  /// `rest` begins with a comma, or is empty.
  void object(const Session& session, const char* event, const std::string& rest);

  std::FILE* lines_;
  std::FILE* json_;
};

}  // namespace kes::driver
