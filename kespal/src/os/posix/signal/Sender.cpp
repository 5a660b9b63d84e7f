#include "kespal/signal/Sender.h"

#include <cerrno>
#include <csignal>

#include "kespal/error/OsError.h"

namespace kes::signal {

void Sender::signalProc(const int& signal, const int& pid) {
  if (::kill(pid, signal) == 0) return;
  if (errno == ESRCH) raiseAt(KES_HERE, NoSuchProcessError(ESRCH));
  raiseAt(KES_HERE, OsError(errno));
}

void Sender::signalThread(const int& signal, const ::pthread_t& thread) {
  checkCode(KES_HERE, ::pthread_kill(thread, signal));
}

}  // namespace kes::signal
