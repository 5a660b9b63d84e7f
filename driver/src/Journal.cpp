#include "Journal.h"

#include <sstream>

#include "Hex.h"

namespace kes::driver {

void Journal::connected(const Session& session) {
  if (verbose_) line(session, "connected");
}

void Journal::received(const Session& session, const Call& call) {
  if (!verbose_) return;
  const iokit::Request& request = call.request;
  std::ostringstream text;
  text << "request " << nameOf(call.name) << " sequence=" << request.header.sequence
       << " selector=" << request.header.selector << " scalars=";
  for (std::size_t i = 0; i < request.header.scalarCount; ++i)
    text << (i == 0 ? "" : ",") << request.scalar(i);
  text << " structure=" << toHex(request.structure) << " scalar-capacity=" << request.header.scalarCapacity
       << " structure-capacity=" << request.header.structureCapacity;
  line(session, text.str());
}

void Journal::malformed(const Session& session, iokit::Bytes datagram) {
  if (verbose_) line(session, "malformed " + toHex(datagram));
}

void Journal::sent(const Session& session, iokit::Bytes datagram) {
  if (verbose_) line(session, "reply " + toHex(datagram));
}

void Journal::closed(const Session& session, const char* why) {
  if (verbose_) line(session, std::string("closed: ") + why);
}

void Journal::line(const Session& session, const std::string& text) {
  std::fprintf(out_, "connection %u %s\n", session.number, text.c_str());
  std::fflush(out_);
}

}  // namespace kes::driver
