#include "kespal/error/BadPermissionsError.h"

#include <cerrno>

#include "kespal/fs/Access.h"

namespace kes {

namespace {
constexpr const char* complaint = ": bad file permissions encountered: ";
}

BadPermissionsError::BadPermissionsError(const std::string& path, const fs::Access& access,
                                         const std::string& reason)
    : Raisable(path, EINVAL), reason_(reason) {
  stream() << complaint << reason << "\nPermissions of file are: " << access;
}

std::string BadPermissionsError::text() const { return path() + complaint + reason_; }

}  // namespace kes
