// A worker that can be asked to pause, to run on and to return, and that obeys between two pieces of work:
// pausing never cuts a piece in half, as stopping the thread from outside would.
#include <atomic>
#include <iostream>

#include "kespal/thread/Thread.h"

namespace {

class Counter : public kes::thread::CoopThread::ICoopThread {
 public:
  void thread(kes::thread::CoopThread& self) override {
    while (self.request() != kes::thread::CoopThread::Return) {
      ++pieces_;
      self.pause();  // returns at once unless a pause is asked for
    }
  }

  long pieces() const { return pieces_; }

 private:
  std::atomic<long> pieces_{0};
};

}  // namespace

int main() {
  Counter counter;
  kes::thread::CoopThread worker("counter", &counter);
  worker.run();
  while (counter.pieces() == 0) kes::thread::BasicThread::yield();

  worker.requestPause();
  worker.waitPaused();
  const long paused = counter.pieces();
  kes::thread::BasicThread::yield();
  std::cout << "paused, nothing is done meanwhile: " << std::boolalpha << (counter.pieces() == paused)
            << '\n';

  worker.requestRun();
  worker.waitRunning();
  while (counter.pieces() == paused) kes::thread::BasicThread::yield();
  std::cout << "it runs on\n";

  worker.requestReturn();
  worker.join();
  std::cout << "it has returned\n";
}
