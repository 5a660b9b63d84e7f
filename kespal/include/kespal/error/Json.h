#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

class Exception;

/// An error in one line for a log, as a JSON object without a newline behind it. The keys, in this order:
/// "type", the class with its namespace; "text", the error's text(); "errno" and "path", where it has them;
/// "site" with "file", "line" and "function", where it was raised at one; "frames", innermost call first,
/// with backtraces on; and "cause", an object of the same kind. The line is UTF-8 whatever bytes a path has:
/// each that is none becomes U+FFFD. However long the chain of causes is, the stack that this takes is the
/// same. Any thread may call. std::bad_alloc, and nothing else.
std::string json(const Exception& error);

}  // namespace kes

KES_EXPORT_END
