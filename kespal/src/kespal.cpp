#include "kespal/kespal.h"

#include <time.h>

#include <cstdlib>
#include <exception>
#include <utility>

#include "error/Report.h"
#include "kespal/Terminal.h"
#include "kespal/UnhandledException.h"
#include "kespal/UserInfo.h"
#include "kespal/fs/File.h"
#include "kespal/proc/Child.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/time/Clock.h"

namespace kes {

constinit KesPal* KesPal::m_instance = nullptr;

namespace {

using Guard = thread::LockGuardT<thread::Lock>;

void initModules(Locale::Language language) {
  Exception::init();
  fs::File::init();
  Locale::init(language);
  UserInfo::init();
  time::ClockBase::init();
  time::InitClock::init();
  ::tzset();
  term::Terminal::init();
}

}  // namespace

KesPal::KesPal(bool quitHandling, bool forkPending, Locale::Language language, const AppBase* app)
    : KesPalInit(quitHandling, forkPending), lock_(thread::Normal), app_(app) {
  // What is built goes again if the rest cannot be: the destructor of a half-made object does not run.
  struct Undo {
    KesPal* runtime;
    ~Undo() {
      if (runtime == nullptr) return;
      fs::File::exit();
      runtime->undo();
      m_instance = nullptr;
    }
  } undo{this};

  m_instance = this;
  init();
  initModules(language);
  setupTerminateHandling();
  undo.runtime = nullptr;
}

KesPal::~KesPal() {
  stopSignalThread();
  proc::Child::exit();
  fs::File::exit();
  m_instance = nullptr;
}

void KesPal::quit() {
  try {
    const Guard guard(lock_);
    for (IQuitHandler* handler : quitHandlers_) handler->handleQuit();
  } catch (const Exception& error) {
    reportStack({"Error processing quit event:\n\n"}, error);
  }
}

void KesPal::addQuitHandler(IQuitHandler& handler) {
  const Guard guard(lock_);
  quitHandlers_.insert(&handler);
}

void KesPal::delQuitHandler(IQuitHandler& handler) {
  const Guard guard(lock_);
  quitHandlers_.erase(&handler);
}

bool exceptionActive() noexcept {
  return std::uncaught_exceptions() > 0 || std::current_exception() != nullptr;
}

void kespal_terminate() {
  if (exceptionActive()) {
    kespal_unhandled_exception();
  } else {
    report({"Program terminated for an unknown reason (e.g. pure virtual method call)\n"});
  }
  report({"Terminating program\n\n"});
  ::raise(SIGABRT);
  std::abort();  // the signal may be blocked or handled
}

}  // namespace kes
