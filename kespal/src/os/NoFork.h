#pragma once

#include "kespal/NoCopy.h"

namespace kes::os {

/// As long as it lives, a fork of another thread waits. It is for calls that hold a lock of the C library
/// which no fork handler looks after: in a child that was made in the middle of one, nobody would give it
/// back.
class NoFork : NoCopy {
 public:
  NoFork() noexcept;
  ~NoFork();
};

}  // namespace kes::os
