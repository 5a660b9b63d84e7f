#include "kespal/error/Code.h"

#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"

namespace kes {

int errnum(const Exception& error) noexcept {
  if (const auto* ofSystem = dynamic_cast<const OsError*>(&error)) return ofSystem->errnum();
  if (const auto* ofFile = dynamic_cast<const FsError*>(&error)) return ofFile->errnum();
  return 0;
}

std::error_code errorCode(const Exception& error) noexcept {
  const int number = errnum(error);
  return number != 0 ? std::error_code(number, std::generic_category()) : std::error_code();
}

}  // namespace kes
