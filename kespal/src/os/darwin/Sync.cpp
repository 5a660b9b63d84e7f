#include "os/Sync.h"

#include <cerrno>

namespace kes::os {

// What has no vnode, such as a pipe, answers ENOTSUP here.
bool nothingToSync(int errnum) noexcept { return errnum == EINVAL || errnum == ENOTSUP; }

}  // namespace kes::os
