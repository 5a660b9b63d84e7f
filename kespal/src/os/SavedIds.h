#pragma once

namespace kes::os {

/// The saved user id of the process: what seteuid() may return to.
unsigned savedUserId() noexcept;

}  // namespace kes::os
