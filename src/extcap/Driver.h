#pragma once

#include <IOKit/IOKitLib.h>

#include <stdexcept>
#include <string>

#include "Request.h"
#include "kespal/NoCopy.h"

namespace kes::extcap {

/// The driver is not there, refuses, or went away; what() says so to a person, and what to do.
struct DriverError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A result of the driver's as manuals and support name it.
std::string hex(kern_return_t result);

/// A connection to the driver, closed with the object. Used by one thread.
class Connection : public NoCopy {
 public:
  /// `role` is one of those in client/UserClient.h. Raises DriverError.
  explicit Connection(std::uint64_t role);
  ~Connection();

  kern_return_t setLevels(const Levels& levels) const;
  /// The next piece of the trace; empty when there is none. Raises DriverError once the driver is gone.
  std::string takeTrace() const;
  /// `count` is the capacity of `packet`, and then the packet's length, 0 when none waits. Raises DriverError
  /// once the driver is gone; every other result is for the caller.
  kern_return_t takePacket(unsigned char* packet, std::size_t& count) const;

 private:
  void open(std::uint64_t role);
  void close() const;

  io_service_t service_ = 0;
  io_connect_t connection_ = 0;
};

}  // namespace kes::extcap
