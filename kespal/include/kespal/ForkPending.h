#pragma once  // since 0.1

#include <atomic>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// Whether the process is about to fork, so that no thread of the library may be created. The runtime object
/// sets it; the layers below read it here, and need not know the runtime. Any thread may read it.
class ForkPending {
 public:
  static inline constinit std::atomic<bool> m_pending{false};  ///< true until KesPalInit::forkDone()
};

}  // namespace kes

KES_EXPORT_END
