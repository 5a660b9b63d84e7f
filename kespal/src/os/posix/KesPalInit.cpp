#include <signal.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "error/OrTerminate.h"
#include "kespal/kespal.h"
#include "kespal/proc/Env.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "signal/Pending.h"
#include "sys/AtEnd.h"

namespace kes {

namespace {

constexpr int mgmSignal = SIGUSR1;

constexpr int takenCareOf[] = {SIGPIPE, SIGUSR1, SIGUSR2, SIGINT, SIGTERM};

// What earlier runtime objects have left blocked. A later one must not take it for the process's own mask,
// which is what the programs get that it starts.
constinit signal::Set g_leftBlocked;

thread_local bool t_notifying = false;

signal::Set handledSignals(bool quitHandling) {
  signal::Set handled{SIGPIPE, SIGUSR1, SIGUSR2};
  if (quitHandling) {
    handled.add(SIGINT);
    handled.add(SIGTERM);
  }
  return handled;
}

signal::Set without(signal::Set signals, const signal::Set& unwanted) {
  for (int signal : takenCareOf) {
    if (unwanted.contains(signal)) signals.remove(signal);
  }
  return signals;
}

/// Whether the signal ends whom it reaches.
bool hasDefaultAction(int signal) {
  struct sigaction action = {};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL;
}

}  // namespace

void QuitSignal::notify(const int& signal, const siginfo_t&) {
  t_notifying = true;
  const sys::AtEnd over([] { t_notifying = false; });
  runtime_.receivedSignal_ = signal;
  runtime_.quit();
}

bool QuitSignal::notifying() noexcept { return t_notifying; }

KesPalInit::KesPalInit(bool quitHandling, bool forkPending) noexcept : quitHandling_(quitHandling) {
  ForkPending::m_pending = forkPending;
}

void KesPalInit::init() {
  const signal::Set before = signal::Mask::get();
  signal::Set::noteOriginal(without(before, g_leftBlocked));
  setSigmask(quitHandling_);
  blocked_ = without(handledSignals(quitHandling_), before);
  if (!quitHandling_) return;
  quitSignal_ = std::make_unique<QuitSignal>(*this);
  if (!forkPending()) startSignalThread();
}

void KesPalInit::setSigmask(bool quitHandling) {
  signal::Mask::call(handledSignals(quitHandling), SIG_BLOCK);
}

void KesPalInit::startSignalThread() {
  signalHandler_ = std::make_unique<signal::Handler>();
  sys::AtEnd withoutThread([this] { signalHandler_.reset(); });
  setupQuitHandling();
  withoutThread.dismiss();
}

void KesPalInit::setupQuitHandling() {
  if (!signalHandler_) return;
  signalHandler_->add(SIGINT, *quitSignal_);
  signalHandler_->add(SIGTERM, *quitSignal_);
  signalHandler_->start(mgmSignal);
}

void KesPalInit::setupTerminateHandling() {
  std::string ignored;
  if (!proc::Env::get("KESPAL_NO_TERMINATE_HANDLER", ignored)) std::set_terminate(&kespal_terminate);
}

void KesPalInit::stopSignalThread() {
  if (signalHandler_) signalHandler_->stop();
}

void KesPalInit::undo() noexcept {
  stopSignalThread();
  // Should this fail as well: the error that is on its way is the one to be told.
  ::pthread_sigmask(SIG_UNBLOCK, &blocked_.native(), nullptr);
  blocked_ = {};
}

void KesPalInit::forkDone() {
  if (!ForkPending::m_pending.exchange(false)) return;
  sys::AtEnd trying([] { ForkPending::m_pending = true; });
  if (quitSignal_ && !signalHandler_) startSignalThread();
  while (!forkHandlers_.empty()) {
    IForkHandler* const next = forkHandlers_.front();
    forkHandlers_.erase(forkHandlers_.begin());
    next->afterFork();
  }
  trying.dismiss();
}

void KesPalInit::addForkHandler(IForkHandler& handler) {
  if (forkPending()) forkHandlers_.push_back(&handler);
}

void KesPalInit::sendReceivedSignal() const {
  const int signal = receivedSignal_;
  signal::takePending();
  signal::Set mask = signal::Set::m_original;
  if (QuitSignal::notifying()) mask.add(mgmSignal);  // who stops the thread sends it, and means no harm
  signal::Mask::call(mask, SIG_SETMASK);
  signal::Sender::signalProc(signal, ::getpid());
  // The system may have handed it to the signal thread, which gives it back. This thread must not go on, and
  // end the process in another way, before that.
  if (!mask.contains(signal) && hasDefaultAction(signal)) {
    signal::Sender::signalThread(signal, ::pthread_self());
  }
}

bool KesPalInit::checkSignalQuit() {
  if (!quitsBySignal()) return false;
  // The signal thread could take the signal for itself: now, or after the notification when the process lives
  // on.
  if (signalHandler_) signalHandler_->leaveSignals();
  sendReceivedSignal();
  return true;
}

bool KesPalInit::explicitQuit(int status) {
  if (!checkSignalQuit()) ::_exit(status);
  return true;
}

KesPalInit::~KesPalInit() {  // NOLINT(bugprone-exception-escape)
  for (int signal : takenCareOf) {
    if (blocked_.contains(signal)) g_leftBlocked.add(signal);
  }
  ForkPending::m_pending = false;
  signalHandler_.reset();
  quitSignal_.reset();
  if (quitsBySignal()) orTerminate([this] { sendReceivedSignal(); });
}

}  // namespace kes
