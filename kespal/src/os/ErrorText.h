#pragma once

#include <cstddef>

namespace kes::os {

/// The POSIX form of strerror_r: writes the system's text for an error number; false when it has none.
bool errorText(int errnum, char* buffer, std::size_t size);

}  // namespace kes::os
