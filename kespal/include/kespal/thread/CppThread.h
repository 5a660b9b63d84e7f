#pragma once  // since 0.1

#include <memory>
#include <string>

#include "kespal/Export.h"
#include "kespal/thread/BasicThread.h"

KES_EXPORT_BEGIN

namespace kes::thread {

/// A joinable thread with the default stack (512 KiB) whose body is an object. The body is not owned and must
/// outlive the thread's run; an exception that leaves it is reported on standard error and ends the thread. A
/// `user` may outlive the thread object, too, if it does not use what it is handed; a derived class that is
/// its own body joins the thread in its destructor. Errors are those of BasicThread.
class CppThread : public BasicThread {
 public:
  /// The body of a thread.
  class IThread {
   public:
    /// The body. Called on the native thread. What it throws is reported and ends the thread, except a
    /// cancellation, which a `catch (...)` in it has to throw on.
    virtual void thread(CppThread& self) = 0;

   protected:
    ~IThread() = default;
  };

  /// A thread that will run `user`. Without a body run() raises UsageError.
  explicit CppThread(const std::string& name, IThread* user = nullptr) : CppThread(name, user, nullptr) {}
  /// A thread that was told to go and has not begun yet leaves without running its body.
  ~CppThread() override;

  virtual bool isCoopThread() const { return false; }  ///< whether it is a CoopThread

 protected:
  /// For a derived object that is a body itself: `self` is run when there is no `user`.
  CppThread(const std::string& name, IThread* user, IThread* self);

  /// For a derived class, whose control block knows the body.
  explicit CppThread(std::shared_ptr<BasicThread::Control> control);

 private:
  struct KES_HIDDEN Control;
};

}  // namespace kes::thread

KES_EXPORT_END
