#include "kespal/ScopeGuard.h"

#include <iostream>

namespace kes {

void ScopeGuardBase::handleEx(const Exception& error) {
  std::cerr << "Exception caught while destroying scope guard:\n" + error.exStack() + '\n' << std::flush;
}

}  // namespace kes
