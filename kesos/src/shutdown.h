#pragma once

extern "C" {

extern unsigned char fShutdown;  ///< 1 once the process is shutting down; shared by threads
}

namespace kes::kesos {

/// Whether KesOsSetShutdown was called.
bool shuttingDown() noexcept;

}  // namespace kes::kesos
