// A daemon that forks first and starts its threads afterwards: a fork copies only the thread that calls it,
// so no library thread may exist before. While the fork is pending the library refuses to make one.
//
// SIGTERM and SIGINT end it, by the runtime object. SIGHUP, which has it read its settings again, is taken by
// a handler of its own.
//
// The program that was called reports what the daemon says, until the daemon ends.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>
#include <string>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/kespal.h"
#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/Thread.h"
#include "kespal/time/Clock.h"

namespace {

using kes::thread::CoopThread;

/// Does the daemon's work in a thread of its own, from the moment that there may be one.
class Worker : public CoopThread::ICoopThread,
               public kes::IForkHandler,
               public kes::IQuitHandler,
               public kes::signal::Handler::INotify {
 public:
  explicit Worker(int report) : report_(report), thread_("worker", this) {}

  void afterFork() override { thread_.run(); }
  void handleQuit() override { thread_.requestReturn(); }
  void notify(const int&, const siginfo_t&) override {
    say("reading the settings again\n");
    kes::signal::Sender::signalProc(SIGTERM, ::getpid());
  }
  void join() { thread_.join(); }
  void say(const std::string& line) const {
    if (::write(report_, line.data(), line.size()) == -1) kes::raiseAt(KES_HERE, kes::OsError(errno));
  }

  /// Shows that threads are refused while the fork is pending.
  void tryTooEarly() {
    try {
      thread_.run();
    } catch (const kes::RuntimeError& error) {
      say(error.text() + '\n');
    }
  }

 private:
  void thread(CoopThread& self) override {
    say("working\n");
    // A daemon has its work and its signals from somewhere else; this one sends them to itself, the next one
    // when the first has arrived.
    kes::signal::Sender::signalProc(SIGHUP, ::getpid());
    while (self.request() != CoopThread::Return) {
      self.sleep(kes::time::RealtimeClock() + std::chrono::seconds(1));
    }
  }

  const int report_;
  CoopThread thread_;
};

void runDaemon(kes::KesPal& runtime, int report) {
  Worker worker(report);
  worker.tryTooEarly();
  runtime.addForkHandler(worker);
  runtime.addQuitHandler(worker);
  ::setsid();
  kes::signal::Mask::call({SIGHUP}, SIG_BLOCK);  // before there are threads, so that all inherit it
  kes::signal::Handler reload;
  reload.add(SIGHUP, worker);
  runtime.forkDone();
  reload.start(SIGUSR2);
  worker.join();
  reload.stop();
  runtime.delQuitHandler(worker);
  worker.say("ended\n");
}

/// Copies what the daemon says to standard output, until its end closes the pipe.
void repeat(int report) {
  char text[256];
  for (ssize_t size; (size = ::read(report, text, sizeof text)) > 0;) std::cout.write(text, size);
}

}  // namespace

int main() {
  int report[2];
  if (::pipe(report) != 0) return 1;
  for (const int end : report) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  kes::KesPal runtime(/*quitHandling=*/true, /*forkPending=*/true, kes::Locale::System);
  const pid_t pid = ::fork();
  if (pid == -1) return 1;
  if (pid == 0) {
    runDaemon(runtime, report[1]);
    return 0;
  }
  ::close(report[1]);
  repeat(report[0]);
}
