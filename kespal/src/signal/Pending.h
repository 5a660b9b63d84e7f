#pragma once

namespace kes::signal {

/// Takes from the calling thread what is pending of the signals that the library blocks against the mask that
/// the process started with: SIGPIPE, SIGUSR1 and SIGUSR2. To be called before that mask is restored, when
/// they would end the process. What is pending for another thread stays. Never waits and never fails.
void takePending() noexcept;

}  // namespace kes::signal
