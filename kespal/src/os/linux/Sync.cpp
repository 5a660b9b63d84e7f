#include "os/Sync.h"

#include <cerrno>

namespace kes::os {

bool nothingToSync(int errnum) noexcept { return errnum == EINVAL; }

}  // namespace kes::os
