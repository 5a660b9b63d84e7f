#include "kespal/error/FsError.h"

namespace kes {

FsError::FsError(const std::string& path, int errnum)
    : Raisable("At location: \"", path, "\"", "File system"), osError_(errnum) {}

std::string FsError::text() const { return path() + ": " + osError_.text(); }

void FsError::moreWhat() const {
  DynError::moreWhat();
  if (osError_.errnum() != 0) appendWhat("\nReason: " + osError_.text() + '.');
}

}  // namespace kes
