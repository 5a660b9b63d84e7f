#include "os/Environ.h"

#include <crt_externs.h>

namespace kes::os {

// A library cannot name `environ` itself on this system.
char** environment() noexcept { return *::_NSGetEnviron(); }

}  // namespace kes::os
