#include "kespal/signal/ScopedMask.h"

#include "error/Report.h"
#include "kespal/signal/Mask.h"

namespace kes::signal {

ScopedMask::ScopedMask(const Set& signals, int how) : before_(Mask::get()) { Mask::call(signals, how); }

ScopedMask::~ScopedMask() {
  doReporting({"Error restoring the signal mask:\n"}, [this] { Mask::call(before_, SIG_SETMASK); });
}

}  // namespace kes::signal
