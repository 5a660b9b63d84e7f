#pragma once

namespace kes::os {

/// Whether this error of fsync() says that the descriptor is of a kind that cannot be synced, as pipes and
/// terminals are.
bool nothingToSync(int errnum) noexcept;

}  // namespace kes::os
