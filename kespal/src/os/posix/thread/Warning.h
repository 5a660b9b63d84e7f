#pragma once

#include <iostream>
#include <string>

#include "kespal/error/Exception.h"
#include "os/NoCancel.h"

namespace kes::os {

/// Writes what a destructor could not do, and why. Whatever is thrown in there ends the process.
inline void warn(const char* headline, const Exception& error) noexcept {
  const NoCancel untilWritten;
  std::cerr << std::string(headline) + error.what() + '\n' << std::flush;
}

}  // namespace kes::os
