#pragma once

#include <exception>

#include "kespal/os/thread/Native.h"

namespace kes {

/// For a destructor whose errors end the program: does it from within a handler, where the error is still
/// there to be reported. Unwinding out of a destructor may have let go of it before.
template <typename Steps>
void orTerminate(Steps steps) {
  try {
    steps();
  } catch (...) {
    if (os::isForcedUnwind()) throw;
    std::terminate();
  }
}

}  // namespace kes
