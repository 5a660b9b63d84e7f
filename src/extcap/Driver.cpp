#include "Driver.h"

#include <IOKit/IOReturn.h>

#include <cstdio>

#include "client/UserClient.h"

namespace kes::extcap {

namespace {

constexpr std::size_t traceCapacity = 2047;

bool isPermission(kern_return_t result) {
  return result == kIOReturnNotPrivileged || result == kIOReturnNotPermitted;
}

bool isTaken(kern_return_t result) {
  return result == kIOReturnExclusiveAccess || result == kIOReturnBusy || result == kIOReturnStillOpen;
}

bool isGone(kern_return_t result) { return result == MACH_SEND_INVALID_DEST || result == kIOReturnNoDevice; }

[[noreturn]] void refuse(kern_return_t result) {
  if (isPermission(result)) {
    throw DriverError("you may not open the VPN driver (" + hex(result) +
                      "): capture as the super-user, or as a user who may");
  }
  if (isTaken(result)) {
    throw DriverError("another program has the VPN driver (" + hex(result) + "): end that one");
  }
  throw DriverError("the VPN driver refused the connection (" + hex(result) + ")");
}

void mustBeThere(kern_return_t result) {
  if (isGone(result)) throw DriverError("the VPN driver was unloaded (" + hex(result) + ")");
}

}  // namespace

std::string hex(kern_return_t result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(result));
  return text;
}

Connection::Connection(std::uint64_t role) {
  try {
    open(role);
  } catch (...) {
    close();
    throw;
  }
}

Connection::~Connection() { close(); }

void Connection::open(std::uint64_t role) {
  service_ = client::findService();
  if (service_ == 0) {
    throw DriverError(std::string("no VPN driver is loaded (") + client::serviceClass + ")");
  }
  if (const auto result = client::openService(service_, connection_); result != KERN_SUCCESS) refuse(result);
  if (const auto result = client::takeRole(connection_, role); result != KERN_SUCCESS) refuse(result);
}

void Connection::close() const {
  if (connection_ != 0) ::IOServiceClose(connection_);
  if (service_ != 0) ::IOObjectRelease(service_);
}

kern_return_t Connection::setLevels(const Levels& levels) const {
  return client::setLevels(connection_, {.driver = levels.driver, .ppp = levels.ppp, .oid = levels.oid});
}

std::string Connection::takeTrace() const {
  char reply[traceCapacity];
  std::size_t count = sizeof reply;
  const kern_return_t result = client::getTrace(connection_, reply, count);
  mustBeThere(result);
  if (result != KERN_SUCCESS || count <= client::traceHeader) return {};
  const std::string text(reply + client::traceHeader, count - client::traceHeader);
  return text.substr(0, text.find('\0'));
}

kern_return_t Connection::takePacket(unsigned char* packet, std::size_t& count) const {
  const kern_return_t result = client::getPacket(connection_, packet, count);
  mustBeThere(result);
  return result;
}

}  // namespace kes::extcap
