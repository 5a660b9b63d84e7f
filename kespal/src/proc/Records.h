#pragma once

#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

#include "kespal/NoCopy.h"
#include "kespal/thread/Condition.h"
#include "os/System.h"
#include "sys/Owner.h"

namespace kes::proc {

class Child;
class Waiter;

/// What is known of one child.
struct Record {
  Child* child = nullptr;  ///< is told of the end
  int status = 0;
  bool ended = false;
  bool lost = false;          ///< somebody else reaped it
  bool abandoned = false;     ///< nobody will ask for the status
  Waiter* waiters = nullptr;  ///< the first of a list
  sys::Descriptor watch{};    ///< by which its end is waited for, where that takes one
};

/// What is known of children: one record for each, under its process id and the number of its registration,
/// since ids are used again and numbers are not. A record stays until its status was asked for, or nobody
/// will ask. The collector's lock guards all of it.
class Records : NoCopy {
 public:
  /// Stands for the last registration of a process id.
  static constexpr std::uint64_t latest = 0;

  /// Takes the memory for the next record, unless it is there: once a child runs it is too late to have none.
  void reserve();
  /// Registers a child that runs, and gives the registration's number. The memory for it is there, unless
  /// there was none when the last one was registered, and no reserve() since. A process with this id exists
  /// now: a child that was still thought to run under it is gone, reaped by somebody else.
  std::uint64_t add(pid_t pid, Child* child, sys::Descriptor watch);

  bool anyRuns() const noexcept { return running_ != 0; }
  /// Whether one runs, as far as is known here, of which this is true; the first of them ends the search.
  template <typename Predicate>
  bool anyRuns(Predicate isTrueOf) const {
    return std::any_of(records_.begin(), records_.end(), [&](const Map::value_type& record) {
      return runs(record) && isTrueOf(record.first.first);
    });
  }
  /// Whether this child has not been reaped yet.
  bool runs(pid_t pid, std::uint64_t number);

  /// What became of a status.
  struct End {
    std::uint64_t number = 0;  ///< of the child; 0 when nobody registered it
    bool isToBeTold = false;   ///< first of all; whoever waits is to be woken after that
  };
  /// Files the status of a child that was reaped. Wakes those who wait for it, unless somebody is to be told
  /// before.
  End end(pid_t pid, int status);
  /// Hands out the status of a child that has ended, and forgets it. False when there is none.
  bool fetch(pid_t pid, std::uint64_t number, int& status);
  /// Nobody will ask for the status, or wants to be told.
  void forget(pid_t pid, std::uint64_t number);

  /// Who is to be told of this child's end, once; null when nobody is.
  Child* takeChild(pid_t pid);
  /// The same of any child that runs.
  Child* takeRunningChild();

  /// Notes of a child that was thought to run that it is lost, and wakes those who wait for it. False when
  /// there is none; else gives who is to be told.
  bool takeLost(bool (*isLost)(pid_t), Child*& child);

  /// Wakes those who wait for this child; for any child.
  void wake(pid_t pid, std::uint64_t number);
  void wakeAll();

 private:
  friend class Waiter;

  using Map = std::map<std::pair<pid_t, std::uint64_t>, Record>;

  static bool runs(const Map::value_type& record) noexcept;
  void noteGone(Record& record) noexcept;
  Map::iterator find(pid_t pid, std::uint64_t number);

  void erase(Map::iterator record);
  static void wake(Record& record);

  Map records_;
  Map::node_type spare_;
  std::size_t running_ = 0;
};

/// Somebody who waits for one child; lives on his stack. Each is woken for his own: waking all for every
/// status would cost the square of their number. An id that is not known yet gets a record without a child.
class Waiter : NoCopy {
 public:
  Waiter(Records& records, thread::Lock& lock, pid_t pid, std::uint64_t number);
  ~Waiter();

  /// Waits to be woken, with the lock held, and may wake up without a reason; false when the moment has come.
  /// A thread that is cancelled in there is off the list and does not hold the lock.
  void wait();
  template <typename Clock>
  bool waitTimed(const Clock& deadline) {
    bool isInTime = true;
    waitOrLeave([&] { isInTime = arrived_.waitTimed(deadline); });
    return isInTime;
  }
  bool isWoken() const noexcept { return record_ == nullptr; }
  /// The status of the child, if it was woken for that: the record may be another waiter's by now.
  const std::optional<int>& status() const noexcept { return status_; }

 private:
  friend class Records;

  template <typename Wait>
  void waitOrLeave(Wait wait) {
    struct Waiting {
      Waiter& waiter;
      Wait& wait;
    } waiting{*this, wait};
    os::waitOrLeave([](void* it) { static_cast<Waiting*>(it)->wait(); },
                    [](void* it) { static_cast<Waiting*>(it)->waiter.leave(); }, &waiting);
  }
  void leave();
  void unlink();

  thread::Condition arrived_;
  Records& records_;
  const pid_t pid_;
  std::uint64_t number_ = Records::latest;
  Record* record_ = nullptr;  ///< in whose list this is; null once it was woken
  Waiter* next_ = nullptr;
  std::optional<int> status_;
};

}  // namespace kes::proc
