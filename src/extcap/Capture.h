#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "Driver.h"
#include "Output.h"
#include "Request.h"
#include "Toolbar.h"
#include "client/Records.h"

namespace kes::extcap {

/// What came of a capture's calls for packets.
struct Totals {
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;
  std::uint64_t empty = 0;          ///< calls that found no packet
  std::uint64_t failed = 0;         ///< calls that the driver refused, but for the next
  std::uint64_t tooLong = 0;        ///< packets that the driver dropped, as they do not fit a reply
  std::uint64_t full = 0;           ///< packets as long as a reply can be: their end may be missing
  std::chrono::nanoseconds wait{};  ///< the longest time that the reader kept a packet waiting
};

/// All of it in one line, without its end.
std::string textOf(const Totals& totals);
/// Whether packets were lost, or may have been.
bool tellsOfLosses(const Totals& totals);

/// Moves packets from the driver to the analyser: asks again at once while there
/// are packets, and sleeps while there are none, at most 10 ms. Used by one thread.
class Capture : public NoCopy {
 public:
  /// Connects to the driver; `output` must outlive the object. Raises DriverError.
  Capture(const Request& request, Output& output);

  /// Returns when it is to end, or nobody reads any more. Raises DriverError when the driver goes away, and
  /// kes::FsError when the file cannot take a packet.
  void run();
  Totals totals() const;

 private:
  enum class Found { Packet, Nothing };

  Found takeOne();
  void deliver(std::size_t length);
  void noteFailure(kern_return_t result);
  void attend(int milliseconds);
  void obey(const ControlMessage& message);
  void setLevels(const Levels& levels);
  void warn(const std::string& text);
  void showTrace();

  Output& output_;
  Toolbar toolbar_;
  Connection packets_;
  std::unique_ptr<Connection> trace_;
  Levels levels_;
  Totals totals_;
  std::chrono::steady_clock::time_point nextTrace_{};
  unsigned char packet_[client::packetCapacity];
};

}  // namespace kes::extcap
