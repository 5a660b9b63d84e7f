#pragma once

#include <chrono>
#include <optional>

#include "wire/Wire.h"

namespace kes::driver {

/// Where the next packet comes from when one is asked for.
class PacketSource {
 public:
  virtual ~PacketSource() = default;
  /// The next packet, which may be empty; nothing at the end. It stays valid until the next call.
  virtual std::optional<iokit::Bytes> next() = 0;
  /// How much later than the packet before it the last packet passed where it was captured; 0 where that says
  /// nothing, and for those whose stamps are in disorder.
  virtual std::chrono::nanoseconds gap() const { return {}; }
};

}  // namespace kes::driver
