#pragma once  // since 0.1

#include <system_error>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

class Exception;

/// The error number that an error carries, whatever its class; 0 where it carries none. That of the error
/// itself, not of its causes: those are at next(). Any thread may call.
int errnum(const Exception& error) noexcept;

/// The same as a std::error_code of the generic category, to compare with std::errc and to hand to code that
/// knows no class of this library; empty where the error carries no number, which is no sign of success. Any
/// thread may call.
std::error_code errorCode(const Exception& error) noexcept;

}  // namespace kes

KES_EXPORT_END
