#include "kespal/ScopeGuard.h"

#include <iostream>

#include "os/NoCancel.h"

namespace kes {

void ScopeGuardBase::handleEx(const Exception& error) {
  const os::NoCancel untilWritten;
  std::cerr << "Exception caught while destroying scope guard:\n" + error.exStack() + '\n' << std::flush;
}

}  // namespace kes
