#pragma once  // since 0.1

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
/// made and again on update(). Owned by its user, not shared between threads. Both may throw OsError.
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

  /// The value as it is, in the system's type; not normalised.
  ::timespec toTimespec() const noexcept;

 protected:
  /// Of one of the services, not read yet.
  explicit ClockBase(std::uint32_t clock) noexcept : clock_(clock) {}
  ~ClockBase() = default;
  ClockBase(const ClockBase&) = default;
  ClockBase& operator=(const ClockBase&) = default;

  /// Takes a reading off the value; the seconds wrap around at 32 bits.
  void subtract(std::uint32_t sec, std::int32_t nsec) noexcept;

 private:
  std::uint32_t clock_;
  std::uint32_t sec_ = 0;
  std::int32_t nsec_ = 0;
};

/// Wall time since 1970-01-01 00:00:00 UTC.
class RealtimeClock final : public ClockBase {
 public:
  RealtimeClock() : ClockBase(REALTIME) { ClockBase::update(); }
};

/// A steady time that is never set back; it stands still while the machine sleeps.
class MonotonicClock final : public ClockBase {
 public:
  MonotonicClock() : ClockBase(MONOTONIC) { ClockBase::update(); }
};

/// Steady time since the platform library was started.
class InitClock final : public ClockBase {
 public:
  /// A reading of the clock.
  struct Origin {
    std::uint32_t sec;  ///< whole seconds
    std::int32_t nsec;  ///< nanoseconds, 0 to 999,999,999
  };

  /// Makes the present moment the origin. Call once, right after ClockBase::init(). OsError as update().
  static void init();

  InitClock() : ClockBase(INITTIME) { InitClock::update(); }

  void update() override;

  static Origin m_init_time;  ///< reading of INITTIME at start-up; zero until init()
};

}  // namespace kes::time

KES_EXPORT_END
