#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::signal {

/// The system's description of a signal, such as "Interrupt"; empty when it has none. As safe for threads as
/// the system's strsignal(), which any thread may call on Linux. Raises nothing but std::bad_alloc.
std::string signame(int signal);

/// The symbolic name of a signal, such as "SIGINT", for the 27 that every supported system has; the text of
/// signame() for every other number, which is as safe for threads. std::bad_alloc.
std::string siglabel(int signal);

}  // namespace kes::signal

KES_EXPORT_END
