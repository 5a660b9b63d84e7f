#include <signal.h>
#include <unistd.h>

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "kespal/State.h"
#include "kespal/kespal.h"
#include "kespal/proc/Env.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"

namespace kes {

namespace {

constexpr int mgmSignal = SIGUSR1;

// Used before the first thread is started, and therefore without a lock.
std::vector<IForkHandler*> g_forkHandlers;

constexpr int takenCareOf[] = {SIGPIPE, SIGUSR1, SIGUSR2, SIGINT, SIGTERM};

// What earlier runtime objects have left blocked. A later one must not take it for the process's own mask,
// which is what the programs get that it starts.
signal::Set g_leftBlocked;

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

}  // namespace

void QuitSignal::notify(const int& signal, const siginfo_t&) {
  struct Mark {
    Mark() { t_notifying = true; }
    ~Mark() { t_notifying = false; }
  } mark;
  runtime_.receivedSignal_ = signal;
  runtime_.quit();
}

bool QuitSignal::notifying() noexcept { return t_notifying; }

KesPalInit::KesPalInit(bool quitHandling, bool forkPending) noexcept
    : quitHandling_(quitHandling), forkPending_(forkPending) {
  State::m_fork_pending = forkPending;
}

void KesPalInit::init() {
  const signal::Set before = signal::Mask::get();
  signal::Set::m_original = without(before, g_leftBlocked);
  setSigmask(quitHandling_);
  blocked_ = without(handledSignals(quitHandling_), before);
  if (!quitHandling_) return;
  quitSignal_ = std::make_unique<QuitSignal>(*this);
  if (!forkPending_) startSignalThread();
}

void KesPalInit::setSigmask(bool quitHandling) {
  signal::Mask::call(handledSignals(quitHandling), SIG_BLOCK);
}

void KesPalInit::startSignalThread() {
  signalHandler_ = std::make_unique<signal::Handler>();
  setupQuitHandling();
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
  if (!forkPending_.exchange(false)) return;
  State::m_fork_pending = false;
  if (quitSignal_) startSignalThread();
  for (IForkHandler* handler : std::exchange(g_forkHandlers, {})) handler->afterFork();
}

void KesPalInit::addForkHandler(IForkHandler& handler) {
  if (forkPending_) g_forkHandlers.push_back(&handler);
}

void KesPalInit::restoreMask() const { signal::Mask::call(signal::Set::m_original, SIG_SETMASK); }

bool KesPalInit::checkSignalQuit() {
  if (!quitsBySignal()) return false;
  // A waiting signal thread could take the signal for itself. It cannot be stopped from within, and needs
  // not: it does not wait then.
  if (!QuitSignal::notifying()) stopSignalThread();
  restoreMask();
  signal::Sender::signalProc(receivedSignal_, ::getpid());
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
  State::m_fork_pending = false;
  g_forkHandlers.clear();
  signalHandler_.reset();
  quitSignal_.reset();
  if (!quitsBySignal()) return;
  restoreMask();
  signal::Sender::signalProc(receivedSignal_, ::getpid());
}

}  // namespace kes
