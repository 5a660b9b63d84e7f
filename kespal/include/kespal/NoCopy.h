#pragma once  // since 0.1

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// Base of classes whose objects own something that cannot be shared: neither copyable nor assignable.
class NoCopy {
 public:
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;

 protected:
  NoCopy() = default;
  ~NoCopy() = default;
};

}  // namespace kes

KES_EXPORT_END
