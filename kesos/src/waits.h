#pragma once

#include <ctime>

// What waits ask the clock, and whether they are worth repeating.
extern "C" {

extern unsigned char fShutdown;  ///< 1 once the process is shutting down; shared by threads

/// The wall-clock time `ms` milliseconds from now, for timed waits; both fields 0 when there is no clock.
void setTimespec(timespec* ts, unsigned int ms);
}

namespace kes::kesos {

/// Whether KesOsSetShutdown was called.
bool shuttingDown() noexcept;

}  // namespace kes::kesos
