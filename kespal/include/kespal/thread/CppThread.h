#pragma once

#include <memory>
#include <string>

#include "kespal/thread/BasicThread.h"

namespace kes::thread {

/// A joinable thread whose body is an object. The body is not owned and must outlive the thread's run; an
/// exception that leaves it is reported on standard error and ends the thread.
class CppThread : public BasicThread {
 public:
  class IThread {
   public:
    virtual void thread(CppThread& self) = 0;

   protected:
    ~IThread() = default;
  };

  /// A thread that will run `user`. Without a body run() raises UsageError.
  explicit CppThread(const std::string& name, IThread* user = nullptr) : CppThread(name, user, nullptr) {}
  ~CppThread() override;

  virtual bool isCoopThread() const { return false; }

 protected:
  /// For a derived object that is a body itself: `self` is run when there is no `user`.
  CppThread(const std::string& name, IThread* user, IThread* self);

  explicit CppThread(std::shared_ptr<BasicThread::Control> control);

 private:
  struct Control;
};

}  // namespace kes::thread
