#include "signal/Registrations.h"

#include "error/Report.h"
#include "kespal/os/thread/Native.h"

namespace kes::signal {

void Registrations::add(int signal, Handler::INotify& notifier) {
  notifiers_[signal].insert(&notifier);
  waitSet_.add(signal);
}

bool Registrations::remove(int signal, Handler::INotify& notifier) {
  const auto registered = notifiers_.find(signal);
  if (registered == notifiers_.end()) return false;
  const auto one = registered->second.find(&notifier);
  if (one == registered->second.end()) return false;
  registered->second.erase(one);
  if (!registered->second.empty()) return true;
  notifiers_.erase(registered);
  waitSet_.remove(signal);
  return true;
}

void Registrations::tell(int signal, const siginfo_t& info) const {
  const auto registered = notifiers_.find(signal);
  if (registered == notifiers_.end()) return;
  for (Handler::INotify* notifier : registered->second) {
    try {
      notifier->notify(signal, info);
    } catch (const Exception& error) {
      reportStack({"handle: Got an exception:\n"}, error);
    } catch (...) {
      if (os::isForcedUnwind()) throw;
      report({"handle: Got an unknown exception\n"});
    }
  }
}

}  // namespace kes::signal
