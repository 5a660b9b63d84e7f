// A program that ends cleanly on SIGTERM: the signal arrives as a call in an ordinary thread, where locks
// may be taken and memory allocated. Started with "self" it sends itself the signal.
#include <unistd.h>

#include <csignal>
#include <iostream>
#include <string_view>

#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Names.h"
#include "kespal/signal/Sender.h"
#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"

namespace {

/// Lets a thread wait until a signal asks the program to end.
class Ending : public kes::signal::Handler::INotify {
 public:
  void notify(const int& signal, const siginfo_t&) override {
    {
      const kes::thread::LockGuardT<kes::thread::Condition> guard(condition_);
      signal_ = signal;
    }
    condition_.signalAll();
  }

  int wait() const {
    const kes::thread::LockGuardT<kes::thread::Condition> guard(condition_);
    condition_.wait([this] { return signal_ != 0; });
    return signal_;
  }

 private:
  kes::thread::Condition condition_;
  int signal_ = 0;
};

}  // namespace

int main(int argc, char** argv) try {
  // Before any thread is started, so that all of them inherit it.
  kes::signal::Mask::call({SIGTERM, SIGINT, SIGUSR1}, SIG_BLOCK);

  Ending ending;
  kes::signal::Handler handler;
  handler.add(SIGTERM, ending);
  handler.add(SIGINT, ending);
  handler.start(SIGUSR1);  // wakes the handler's thread when something changes

  std::cout << "end me with: kill " << ::getpid() << std::endl;
  if (argc > 1 && std::string_view(argv[1]) == "self") kes::signal::Sender::signalProc(SIGTERM, ::getpid());

  const int signal = ending.wait();
  handler.stop();
  std::cout << "ended by " << kes::signal::siglabel(signal) << '\n';
} catch (const kes::Exception& error) {
  std::cerr << error.exStack() << '\n';
  return 1;
}
