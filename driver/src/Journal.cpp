#include "Journal.h"

#include <cinttypes>
#include <ctime>
#include <sstream>

#include "Hex.h"

namespace kes::driver {

namespace {

std::string scalarsOf(const iokit::Request& request) {
  std::ostringstream text;
  for (std::size_t i = 0; i < request.header.scalarCount; ++i)
    text << (i == 0 ? "" : ",") << request.scalar(i);
  return text.str();
}

/// A text in quotes, with what JSON wants escaped.
std::string quoted(std::string_view text) {
  std::string all = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') all += '\\';
    all += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return all + '"';
}

std::string member(const char* name, const std::string& value) {
  return std::string(",\"") + name + "\":" + value;
}
std::string member(const char* name, std::uint64_t value) { return member(name, std::to_string(value)); }

}  // namespace

void Journal::connected(const Session& session) {
  if (lines_ != nullptr) line(session, "connected");
  if (json_ != nullptr) object(session, "connected", "");
}

void Journal::received(const Session& session, const Call& call) {
  const iokit::Request& request = call.request;
  const iokit::RequestHeader& header = request.header;
  if (lines_ != nullptr) {
    std::ostringstream text;
    text << "request " << nameOf(call.name) << " sequence=" << header.sequence
         << " selector=" << header.selector << " scalars=" << scalarsOf(request)
         << " structure=" << toHex(request.structure) << " scalar-capacity=" << header.scalarCapacity
         << " structure-capacity=" << header.structureCapacity;
    line(session, text.str());
  }
  if (json_ != nullptr) {
    object(session, "request",
           member("call", quoted(nameOf(call.name))) + member("sequence", header.sequence) +
               member("selector", header.selector) + member("scalars", '[' + scalarsOf(request) + ']') +
               member("structure", quoted(toHex(request.structure))) +
               member("scalarCapacity", header.scalarCapacity) +
               member("structureCapacity", header.structureCapacity));
  }
}

void Journal::malformed(const Session& session, iokit::Bytes datagram) {
  if (lines_ != nullptr) line(session, "malformed " + toHex(datagram));
  if (json_ != nullptr) object(session, "malformed", member("datagram", quoted(toHex(datagram))));
}

void Journal::sent(const Session& session, iokit::Bytes datagram) {
  if (lines_ != nullptr) line(session, "reply " + toHex(datagram));
  if (json_ != nullptr) object(session, "reply", member("datagram", quoted(toHex(datagram))));
}

void Journal::closed(const Session& session, const char* why) {
  if (lines_ != nullptr) line(session, std::string("closed: ") + why);
  if (json_ != nullptr) object(session, "closed", member("reason", quoted(why)));
}

void Journal::line(const Session& session, const std::string& text) {
  std::fprintf(lines_, "connection %u %s\n", session.number, text.c_str());
  std::fflush(lines_);
}

void Journal::object(const Session& session, const char* event, const std::string& rest) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  std::fprintf(json_, "{\"time\":%" PRId64 ".%09ld,\"connection\":%u,\"event\":\"%s\"%s}\n",
               std::int64_t{now.tv_sec}, now.tv_nsec, session.number, event, rest.c_str());
  std::fflush(json_);
}

}  // namespace kes::driver
