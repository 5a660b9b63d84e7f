#include "os/Environ.h"

#include <unistd.h>

namespace kes::os {

char** environment() noexcept { return ::environ; }

}  // namespace kes::os
