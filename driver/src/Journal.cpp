#include "Journal.h"

#include <sstream>

#include "Records.h"

namespace kes::driver {

std::string hexOf(iokit::Bytes bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

void Journal::connected(const Session& session) {
  if (verbose_) line(session, "connected");
}

void Journal::received(const Session& session, const iokit::Request& request) {
  if (!verbose_) return;
  std::ostringstream text;
  text << "request " << nameOf(callOf(request)) << " sequence=" << request.header.sequence
       << " selector=" << request.header.selector << " scalars=";
  for (std::size_t i = 0; i < request.header.scalarCount; ++i)
    text << (i == 0 ? "" : ",") << request.scalar(i);
  text << " structure=" << hexOf(request.structure) << " scalar-capacity=" << request.header.scalarCapacity
       << " structure-capacity=" << request.header.structureCapacity;
  line(session, text.str());
}

void Journal::malformed(const Session& session, iokit::Bytes datagram) {
  if (verbose_) line(session, "malformed " + hexOf(datagram));
}

void Journal::sent(const Session& session, iokit::Bytes datagram) {
  if (verbose_) line(session, "reply " + hexOf(datagram));
}

void Journal::closed(const Session& session, const char* why) {
  if (verbose_) line(session, std::string("closed: ") + why);
}

void Journal::line(const Session& session, const std::string& text) {
  std::fprintf(out_, "connection %u %s\n", session.number, text.c_str());
  std::fflush(out_);
}

}  // namespace kes::driver
