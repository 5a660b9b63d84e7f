#pragma once

#include <cstdint>
#include <ctime>

// The process-wide values of the time group, and what other groups need of it. Unmangled as the whole layer.
extern "C" {

extern unsigned char fShutdown;         ///< 1 once the process is shutting down; shared by threads
extern std::uint64_t g_kesos_inittime;  ///< second of the monotonic clock at first use; 0: not yet set

/// The wall-clock time `ms` milliseconds from now, for timed waits; both fields 0 when there is no clock.
void setTimespec(timespec* ts, unsigned int ms);
}

namespace kes::kesos {

/// Whether KesOsSetShutdown was called.
bool shuttingDown() noexcept;

}  // namespace kes::kesos
