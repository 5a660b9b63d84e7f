#pragma once

#include <chrono>

#include "semaphores.h"

namespace kes::kesos {

/// Takes one from the semaphore. `look` is asked at the end of the time, at signals and, when that takes
/// longer, in these intervals: whether what is waited for was had in another way, which is the outcome
/// holderDied. The wait of a process that is shutting down fails as soon as that is seen. When it is not
/// signalled or holderDied, errno says why; ETIMEDOUT when it is timedOut.
WaitState waitKeyed(int semid, unsigned int timeoutMs, std::chrono::nanoseconds interval,
                    bool (*look)(int semid));

}  // namespace kes::kesos
