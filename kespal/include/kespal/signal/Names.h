#pragma once  // since 0.1

#include <string>

namespace kes::signal {

/// The system's description of a signal, such as "Interrupt"; empty when it has none.
std::string signame(int signal);

/// The symbolic name of a signal, such as "SIGINT", for the 27 that every supported system has; the text of
/// signame() for every other number.
std::string siglabel(int signal);

}  // namespace kes::signal
