#include "kespal/ScopeGuard.h"

#include "error/Report.h"

namespace kes {

void ScopeGuardBase::handleEx(const Exception& error) {
  reportStack({"Exception caught while destroying scope guard:\n"}, error);
}

}  // namespace kes
