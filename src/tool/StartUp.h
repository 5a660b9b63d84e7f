#pragma once

#include "kespal/NoCopy.h"

/// Prepares the process as the platform library's users need it: SIGPIPE, SIGUSR1 and SIGUSR2 blocked, errors
/// and clocks initialised. Made first, before anything else runs.
class StartUp : public kes::NoCopy {
 public:
  StartUp();
};
