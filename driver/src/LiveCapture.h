#pragma once

#include <iosfwd>
#include <string>

#include "Driver.h"
#include "EventLoop.h"
#include "Pcap.h"

namespace kes::driver {

/// Lets the packets of a network interface pass by the driver as they come. Needs the right to capture.
/// Throws std::runtime_error where capturing is refused or the packets are not Ethernet's.
class LiveCapture {
 public:
  LiveCapture(const std::string& interface, EventLoop& loop, Driver& driver);

  /// Prints what the kernel lost before it could be read.
  void printTotals(std::ostream& out) const;

 private:
  void read();

  std::string interface_;
  EventLoop& loop_;
  Driver& driver_;
  PcapHandle capture_;
};

}  // namespace kes::driver
