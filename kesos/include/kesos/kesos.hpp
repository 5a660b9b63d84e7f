#pragma once  // since 0.1

#include <pthread.h>

#include <functional>
#include <memory>
#include <new>
#include <utility>

#include "kesos/kesos.h"

// Owners for C++ of what the flat layer hands out, each of which gives it back at its end. Header only, for
// C++17 and later.
//
//   kesos::Mutex mutex;
//   if (!KesOsMutexCreate(mutex.put(), key)) return false;
//   KesOsMutexWait(mutex.get(), KESOS_INFINITE, nullptr);
//
// An owner moves and is not copied. It adds nothing to the calls: what they say about threads, limits and
// errno holds here, too. One object belongs to one thread at a time. Giving back reports no error; who must
// know it calls the closing function with what release() gives.

namespace kesos {

namespace detail {

/// Keeps the calling thread from being cancelled: it may wait in a destructor.
class NoCancel {
 public:
  NoCancel() noexcept { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~NoCancel() {
    int ignored = 0;
    ::pthread_setcancelstate(before_, &ignored);
  }
  NoCancel(const NoCancel&) = delete;
  NoCancel& operator=(const NoCancel&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace detail

/// Owns one thing. `Trait` says what it is (Value), what stands for none (none()), how none is known (isNone)
/// and how it is given back (close).
template <typename Trait>
class Owner {
 public:
  using Value = typename Trait::Value;  ///< what it owns one of

  Owner() = default;
  /// Takes the thing over.
  explicit Owner(const Value& value) : value_(value) {}
  /// Leaves the other one with none.
  Owner(Owner&& other) noexcept : value_(other.release()) {}
  /// The same, and gives back what it had.
  Owner& operator=(Owner&& other) {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Owner() {
    const detail::NoCancel untilGivenBack;
    reset();
  }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;

  /// The thing itself, which stays the owner's. Of a record it is a reference.
  typename Trait::Access get() const noexcept { return value_; }
  /// Whether it has a thing.
  explicit operator bool() const noexcept { return !Trait::isNone(value_); }

  /// Gives the thing up to the caller.
  Value release() noexcept { return std::exchange(value_, Trait::none()); }
  /// Gives back what it has, and takes another thing, or none.
  void reset(const Value& value = Trait::none()) {
    Value before = std::exchange(value_, value);
    if (!Trait::isNone(before)) Trait::close(before);
  }
  /// Where a call of the flat layer puts a new thing; what was there is given back before.
  Value* put() {
    reset();
    return &value_;
  }
  /// The thing, for calls that change its record: a search that goes on.
  Value* use() noexcept { return &value_; }

 private:
  Value value_ = Trait::none();
};

namespace detail {

/// A pointer that a function gives back.
template <typename Handle, int (*closeHandle)(Handle*)>
struct HandleTrait {
  using Value = Handle*;
  using Access = Handle*;
  static Value none() noexcept { return nullptr; }
  static bool isNone(Value value) noexcept { return value == nullptr; }
  static void close(Value value) { closeHandle(value); }
};

struct FileTrait {
  using Value = int;
  using Access = int;
  static Value none() noexcept { return -1; }
  static bool isNone(Value value) noexcept { return value == -1; }
  static void close(Value value) { KesOsCloseHdl(value); }
};

struct MappingTrait {
  using Value = KesOsMmf;
  using Access = const KesOsMmf&;
  static Value none() noexcept { return {-1, -1, 0, nullptr, 0, 0}; }
  static bool isNone(const Value& value) noexcept { return value.address == nullptr; }
  static void close(Value& value) { KesOsMmfClose(&value); }
};

struct SearchTrait {
  using Value = KesOsFind;
  using Access = const KesOsFind&;
  static Value none() noexcept { return {nullptr, {}, {}}; }
  static bool isNone(const Value& value) noexcept { return value.dir == nullptr; }
  static void close(Value& value) { KesOsFindClose(&value); }
};

}  // namespace detail

/// A mutex. To give back a local one waits until nobody holds it.
using Mutex = Owner<detail::HandleTrait<KesOsMutex, KesOsMutexClose>>;
/// An event. Nobody may wait for a local one that is given back.
using Event = Owner<detail::HandleTrait<KesOsEvent, KesOsEventClose>>;
/// A child process. Its end is not waited for: it runs on without its owner.
using Process = Owner<detail::HandleTrait<KesOsProcess, KesOsProcessClose>>;
/// A dynamic library. Nothing of it may be used when it is given back.
using Library = Owner<detail::HandleTrait<void, KesOsDlFree>>;
/// A descriptor.
using File = Owner<detail::FileTrait>;
/// Shared memory, or a mapped file.
using Mapping = Owner<detail::MappingTrait>;
/// A search in a directory: KesOsFindFirst takes put(), KesOsFindNext takes use().
using Search = Owner<detail::SearchTrait>;

/// A detached thread and the state word by which it is asked to stop. Giving it back asks, and waits until
/// the body has returned. It is never cancelled.
class Thread {
 public:
  /// What a body asks: whether it is to return.
  class Stop {
   public:
    /// Any thread may ask, while the body runs.
    bool requested() const noexcept { return __atomic_load_n(state_, __ATOMIC_ACQUIRE) == 3; }

   private:
    friend class Thread;
    explicit Stop(const unsigned int* state) noexcept : state_(state) {}

    const unsigned int* state_;
  };
  using Body = std::function<void(const Stop& stop)>;  ///< what the thread does

  Thread() = default;
  /// Leaves the other one with none.
  Thread(Thread&& other) noexcept
      : handle_(std::exchange(other.handle_, pthread_t{})), state_(std::move(other.state_)) {}
  /// The same, and stops the thread that it had.
  Thread& operator=(Thread&& other) {
    if (this == &other) return *this;
    reset();
    handle_ = std::exchange(other.handle_, pthread_t{});
    state_ = std::move(other.state_);
    return *this;
  }
  ~Thread() {
    const detail::NoCancel untilItHasEnded;
    reset();
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  /// Starts the body in a thread in place of the one it has. False when the system gives none.
  /// std::bad_alloc. An exception that leaves the body ends the program.
  bool start(Body body) {
    reset();
    auto task = std::make_unique<Task>(Task{std::move(body), std::make_shared<unsigned int>(0U)});
    const std::shared_ptr<unsigned int> state = task->state;
    if (!KesOsThreadStart(&handle_, state.get(), &run, task.get())) return false;
    static_cast<void>(task.release());
    state_ = state;
    return true;
  }

  /// The thread, valid while its body runs.
  pthread_t get() const noexcept { return handle_; }
  /// Whether it has a thread, which may have ended.
  explicit operator bool() const noexcept { return state_ != nullptr; }
  /// Whether the body has not returned.
  bool isRunning() const noexcept {
    return state_ != nullptr && __atomic_load_n(state_.get(), __ATOMIC_ACQUIRE) != 0;
  }

  /// Leaves the thread to itself: nobody asks it to stop any more.
  pthread_t release() noexcept {
    state_.reset();
    return std::exchange(handle_, pthread_t{});
  }
  /// Asks the thread to stop, and waits until its body has returned. Not to be called by the body.
  void reset() {
    if (state_ != nullptr) KesOsThreadStop(nullptr, state_.get(), 0, nullptr, nullptr);
    release();
  }

 private:
  struct Task {
    Body body;
    std::shared_ptr<unsigned int> state;
  };

  /// The body and what it holds go before the state says that it is over.
  static void* run(void* argument) {
    std::unique_ptr<Task> task(static_cast<Task*>(argument));
    const std::shared_ptr<unsigned int> state = task->state;
    task->body(Stop(state.get()));
    task.reset();
    __atomic_store_n(state.get(), 0U, __ATOMIC_RELEASE);
    return nullptr;
  }

  pthread_t handle_{};
  std::shared_ptr<unsigned int> state_;
};

}  // namespace kesos
