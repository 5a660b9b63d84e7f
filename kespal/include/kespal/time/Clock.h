#pragma once  // since 0.1

#include <chrono>
#include <compare>
#include <cstdint>
#include <ctime>

#include "kespal/Export.h"
#include "kespal/time/Milliseconds.h"

KES_EXPORT_BEGIN

namespace kes::time {

/// The process-wide handles of the system's clock services, 0 until ClockBase::init(). Written once during
/// single-threaded start-up, only read afterwards.
class OsClock {
 public:
  // NOLINTBEGIN(readability-identifier-naming): the services' established names
  static std::uint32_t REALTIME;    ///< calendar time
  static std::uint32_t MONOTONIC;   ///< time since boot, never set back
  static std::uint32_t INITTIME;    ///< the same service as MONOTONIC, and so are the next two
  static std::uint32_t PROCTIME;    ///< see INITTIME
  static std::uint32_t THREADTIME;  ///< see INITTIME
  // NOLINTEND(readability-identifier-naming)
};

/// A small value: the handle of one clock service and the last time read from it. It is read when it is
/// made and again on update(). Owned by its user, not shared between threads. Both may throw OsError; nothing
/// else does.
class ClockBase : public OsClock {
 public:
  /// Obtains the clock services; failures show when a clock is read. Call before any clock is made.
  static void init();

  /// Reads the clock again. Raises OsError with the errno of the failed reading: EINVAL on Linux for a
  /// clock made before init().
  virtual void update();

  std::uint32_t sec() const noexcept { return sec_; }  ///< whole seconds of the last reading
  /// Nanoseconds of the last reading, 0 to 999,999,999; an advanced value may leave this range.
  std::int32_t nsec() const noexcept { return nsec_; }

  /// Advances the value. A sum of exactly 1,000,000,000 nanoseconds is not carried, and a negative count
  /// borrows nothing, so that the nanoseconds may go negative. Seconds wrap around at 32 bits.
  ClockBase& operator+=(Milliseconds duration) noexcept;
  /// The same the other way: as `+=` with the count that has the other sign.
  ClockBase& operator-=(Milliseconds duration) noexcept;

  /// How long after its beginning the value is: after 1970, the start of the machine or that of the library.
  std::chrono::nanoseconds sinceEpoch() const noexcept {
    return std::chrono::seconds(sec_) + std::chrono::nanoseconds(nsec_);
  }
  /// The value as it is, in the system's type; not normalised.
  ::timespec toTimespec() const noexcept;

 protected:
  /// Of one of the services, not read yet.
  explicit ClockBase(std::uint32_t clock) noexcept : clock_(clock) {}
  /// A value that is not read from the clock. Its seconds wrap around at 32 bits, its nanoseconds are those
  /// of a second.
  template <typename Rep, typename Period>
  ClockBase(std::uint32_t clock, const std::chrono::duration<Rep, Period>& sinceEpoch) noexcept
      : clock_(clock) {
    const auto whole = std::chrono::floor<std::chrono::seconds>(sinceEpoch);
    sec_ = static_cast<std::uint32_t>(whole.count());
    nsec_ =
        static_cast<std::int32_t>(std::chrono::floor<std::chrono::nanoseconds>(sinceEpoch - whole).count());
  }
  ~ClockBase() = default;
  ClockBase(const ClockBase&) = default;
  ClockBase& operator=(const ClockBase&) = default;

  /// Takes a reading off the value; the seconds wrap around at 32 bits.
  void subtract(std::uint32_t sec, std::int32_t nsec) noexcept;

 private:
  void advance(std::int64_t seconds, std::int64_t milliseconds) noexcept;

  std::uint32_t clock_;
  std::uint32_t sec_ = 0;
  std::int32_t nsec_ = 0;
};

/// What values of one kind of clock can do with each other, and with none of another kind: they are compared
/// and subtracted by the moment that they mean, however that is written in seconds and nanoseconds. Each kind
/// is a clock of std::chrono, too, whose time points convert to values and back. They are exact where values
/// are advanced by the rules of `+=`.
template <typename Kind, bool isSteady>
class ClockOf : public ClockBase {
 public:
  // NOLINTBEGIN(readability-identifier-naming): what a clock of std::chrono has to have
  using duration = std::chrono::nanoseconds;                   ///< between two time points
  using rep = duration::rep;                                   ///< what counts them
  using period = duration::period;                             ///< what is counted
  using time_point = std::chrono::time_point<Kind, duration>;  ///< a moment of this clock
  static constexpr bool is_steady = isSteady;                  ///< whether it is never set
  // NOLINTEND(readability-identifier-naming)

  /// Reads the clock. Raises OsError as update() does.
  static time_point now() { return Kind().toTimePoint(); }

  /// The moment that the value means.
  time_point toTimePoint() const noexcept { return time_point(sinceEpoch()); }

  /// Advances the value, as ClockBase does.
  Kind& operator+=(Milliseconds span) noexcept {
    ClockBase::operator+=(span);
    return static_cast<Kind&>(*this);
  }
  /// Sets it back, likewise.
  Kind& operator-=(Milliseconds span) noexcept {
    ClockBase::operator-=(span);
    return static_cast<Kind&>(*this);
  }

 protected:
  /// Of one of the services, not read yet.
  explicit ClockOf(std::uint32_t clock) noexcept : ClockBase(clock) {}
  /// Of a service, with a value that was not read.
  template <typename Rep, typename Period>
  ClockOf(std::uint32_t clock, const std::chrono::duration<Rep, Period>& sinceEpoch) noexcept
      : ClockBase(clock, sinceEpoch) {}
  ~ClockOf() = default;
  ClockOf(const ClockOf&) = default;
  ClockOf& operator=(const ClockOf&) = default;
};

/// The value advanced, by the rules of `+=`.
template <typename Kind, bool isSteady>
Kind operator+(const ClockOf<Kind, isSteady>& clock, Milliseconds duration) noexcept {
  Kind sum(static_cast<const Kind&>(clock));
  sum += duration;
  return sum;
}

/// The value set back, by the rules of `-=`.
template <typename Kind, bool isSteady>
Kind operator-(const ClockOf<Kind, isSteady>& clock, Milliseconds duration) noexcept {
  Kind difference(static_cast<const Kind&>(clock));
  difference -= duration;
  return difference;
}

/// How much later the first one is; exact, whatever the values are.
template <typename Kind, bool isSteady>
std::chrono::nanoseconds operator-(const ClockOf<Kind, isSteady>& end,
                                   const ClockOf<Kind, isSteady>& start) noexcept {
  return end.sinceEpoch() - start.sinceEpoch();
}

/// Whether both mean the same moment.
template <typename Kind, bool isSteady>
bool operator==(const ClockOf<Kind, isSteady>& one, const ClockOf<Kind, isSteady>& other) noexcept {
  return one.sinceEpoch() == other.sinceEpoch();
}

/// Earlier is less.
template <typename Kind, bool isSteady>
std::weak_ordering operator<=>(const ClockOf<Kind, isSteady>& one,
                               const ClockOf<Kind, isSteady>& other) noexcept {
  return one.sinceEpoch().count() <=> other.sinceEpoch().count();
}

/// Wall time since 1970-01-01 00:00:00 UTC, which is what std::chrono::system_clock tells, too.
class RealtimeClock final : public ClockOf<RealtimeClock, /*isSteady=*/false> {
 public:
  /// Reads the clock. Raises OsError as update() does.
  RealtimeClock() : ClockOf(REALTIME) { ClockBase::update(); }
  /// A moment that was not read, but is given.
  template <typename Duration>
  explicit RealtimeClock(const std::chrono::time_point<RealtimeClock, Duration>& moment) noexcept
      : ClockOf(REALTIME, moment.time_since_epoch()) {}
  /// The same from the system's clock.
  template <typename Duration>
  explicit RealtimeClock(const std::chrono::sys_time<Duration>& moment) noexcept
      : ClockOf(REALTIME, moment.time_since_epoch()) {}

  /// The moment for std::chrono::system_clock.
  std::chrono::sys_time<std::chrono::nanoseconds> toSysTime() const noexcept {
    return std::chrono::sys_time<std::chrono::nanoseconds>(sinceEpoch());
  }
};

/// A steady time that is never set back; it stands still while the machine sleeps. On Linux it is the one of
/// std::chrono::steady_clock. On macOS that one goes on meanwhile, so that no moment of the one can be told
/// in the other.
class MonotonicClock final : public ClockOf<MonotonicClock, /*isSteady=*/true> {
 public:
  /// Reads the clock. Raises OsError as update() does.
  MonotonicClock() : ClockOf(MONOTONIC) { ClockBase::update(); }
  /// A moment that was not read, but is given.
  template <typename Duration>
  explicit MonotonicClock(const std::chrono::time_point<MonotonicClock, Duration>& moment) noexcept
      : ClockOf(MONOTONIC, moment.time_since_epoch()) {}
};

/// Steady time since the platform library was started.
class InitClock final : public ClockOf<InitClock, /*isSteady=*/true> {
 public:
  /// A reading of the clock.
  struct Origin {
    std::uint32_t sec;  ///< whole seconds
    std::int32_t nsec;  ///< nanoseconds, 0 to 999,999,999
  };

  /// Makes the present moment the origin. Call once, right after ClockBase::init(). OsError as update().
  static void init();

  /// Reads the clock. Raises OsError as update() does.
  InitClock() : ClockOf(INITTIME) { InitClock::update(); }
  /// A moment that was not read, but is given.
  template <typename Duration>
  explicit InitClock(const std::chrono::time_point<InitClock, Duration>& moment) noexcept
      : ClockOf(INITTIME, moment.time_since_epoch()) {}

  void update() override;

  static Origin m_init_time;  ///< reading of INITTIME at start-up; zero until init()
};

}  // namespace kes::time

KES_EXPORT_END
