#pragma once  // since 0.1

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// Says on the system's log (standard error where there is none) which exception ends the program: a library
/// error with its whole stack text, a standard one with its text, on macOS also an Objective-C one with all
/// it knows. For a terminate handler, while the exception is in flight or being handled; any thread. Throws
/// nothing, also without memory (the text is shorter then) or with a null what().
void kespal_unhandled_exception();

}  // namespace kes

KES_EXPORT_END
