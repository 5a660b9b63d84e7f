#pragma once

#include <optional>

#include "wire/Wire.h"

namespace kes::driver {

/// Where the next packet comes from when one is asked for.
class PacketSource {
 public:
  virtual ~PacketSource() = default;
  /// The next packet, which may be empty; nothing at the end. It stays valid until the next call.
  virtual std::optional<iokit::Bytes> next() = 0;
};

}  // namespace kes::driver
