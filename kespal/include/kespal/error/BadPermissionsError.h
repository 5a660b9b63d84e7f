#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"
#include "kespal/error/FsError.h"

KES_EXPORT_BEGIN

namespace kes {

namespace fs {
class Access;
}

/// A file's owner, group or permission bits are not as they have to be (EINVAL).
class BadPermissionsError : public Raisable<BadPermissionsError, FsError> {
 public:
  /// `access` is what the file has; what() shows it, text() does not.
  BadPermissionsError(const std::string& path, const fs::Access& access, const std::string& reason);
  /// A null path counts as the empty one.
  BadPermissionsError(const char* path, const fs::Access& access, const std::string& reason)
      : BadPermissionsError(std::string(path != nullptr ? path : ""), access, reason) {}

  const std::string& reason() const noexcept { return reason_; }  ///< as it was given

  /// The path, ": bad file permissions encountered: ", and the reason.
  std::string text() const override;

 private:
  std::string reason_;
};

}  // namespace kes

KES_EXPORT_END
