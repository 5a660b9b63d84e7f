#pragma once

#include "kespal/NoCopy.h"
#include "kespal/proc/Shepherd.h"

namespace kes::proc {

/// The process's one collector, kept from being destroyed while the object lives.
class Collector : NoCopy {
 public:
  enum Wanted { Created, Existing, IfThere };

  /// Created: makes and starts the collector if there is none. Existing: raises RuntimeError without one.
  explicit Collector(Wanted wanted);
  ~Collector();

  explicit operator bool() const noexcept { return shepherd_ != nullptr; }
  Shepherd* operator->() const noexcept { return shepherd_; }

 private:
  Shepherd* shepherd_;
};

}  // namespace kes::proc
