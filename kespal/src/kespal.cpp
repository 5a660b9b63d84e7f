#include "kespal/kespal.h"

#include <signal.h>
#include <time.h>

#include <cstdlib>
#include <exception>
#include <set>
#include <utility>

#include "error/OrTerminate.h"
#include "error/Report.h"
#include "kespal/Terminal.h"
#include "kespal/UnhandledException.h"
#include "kespal/UserInfo.h"
#include "kespal/fs/File.h"
#include "kespal/proc/Child.h"
#include "kespal/signal/Set.h"
#include "kespal/thread/Lock.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/time/Clock.h"
#include "os/NoFork.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "thread/PerProcess.h"

namespace kes {

constinit KesPal* KesPal::m_instance = nullptr;

namespace {

using Guard = thread::LockGuardT<thread::Lock>;

void readTimeZone() {
  const os::NoFork untilRead;
  ::tzset();
}

void initModules(Locale::Language language) {
  Exception::init();
  fs::File::init();
  Locale::init(language);
  UserInfo::init();
  time::ClockBase::init();
  time::InitClock::init();
  readTimeZone();
  term::Terminal::init();
}

}  // namespace

/// What the threads of one process share.
struct KesPal::Shared : thread::ProcessBound {
  using Handlers = std::set<IQuitHandler*>;

  explicit Shared(const Handlers& first = {}) : handlers(first) {}

  thread::Lock lock{thread::Normal};
  thread::Replaceable<Handlers> handlers KES_GUARDED_BY(lock);

  std::shared_ptr<Shared> inChild() const KES_UNCHECKED { return std::make_shared<Shared>(*handlers); }

  template <typename Change>
  void changeHandlers(Change change) KES_EXCLUDES(lock) {
    const Guard guard(lock);
    auto next = std::make_unique<Handlers>(*handlers);
    change(*next);
    handlers.replace(std::move(next));
  }
};

KesPal::KesPal(bool quitHandling, bool forkPending, Locale::Language language, const AppBase* app)
    : KesPalInit(quitHandling, forkPending),
      shared_(std::make_unique<thread::PerProcess<Shared>>(std::make_shared<Shared>())),
      app_(app) {
  // What is built goes again if the rest cannot be: the destructor of a half-made object does not run.
  sys::AtEnd undoing([this] {
    fs::File::exit();
    undo();
    m_instance = nullptr;
  });
  m_instance = this;
  init();
  initModules(language);
  setupTerminateHandling();
  undoing.dismiss();
}

KesPal::~KesPal() {
  const sys::NoCancel untilEnded;
  orTerminate([this] {
    stopSignalThread();
    proc::Child::exit();
    fs::File::exit();
  });
  m_instance = nullptr;
}

void KesPal::quit() {
  quitRequested_ = true;
  try {
    const Shared& shared = *shared_->get();
    const Guard guard(shared.lock);
    for (IQuitHandler* handler : *shared.handlers) handler->handleQuit();
  } catch (const Exception& error) {
    reportStack({"Error processing quit event:\n\n"}, error);
  }
}

void KesPal::addQuitHandler(IQuitHandler& handler) {
  shared_->get()->changeHandlers([&handler](Shared::Handlers& handlers) { handlers.insert(&handler); });
}

void KesPal::delQuitHandler(IQuitHandler& handler) {
  shared_->get()->changeHandlers([&handler](Shared::Handlers& handlers) { handlers.erase(&handler); });
}

bool exceptionActive() noexcept {
  return std::uncaught_exceptions() > 0 || std::current_exception() != nullptr;
}

void kespal_terminate() {
  // Words that nobody can read, or no file can take, must not be what ends the program.
  const signal::Set ofWriting{SIGPIPE, SIGXFSZ};
  ::pthread_sigmask(SIG_BLOCK, &ofWriting.native(), nullptr);
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
