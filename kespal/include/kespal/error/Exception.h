#pragma once  // since 0.1

#include <exception>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include "kespal/Backtrace.h"
#include "kespal/Export.h"
#include "kespal/UnhandledException.h"  // who handles errors may report the one that nobody did
#include "kespal/error/Site.h"

KES_EXPORT_BEGIN

namespace kes {

/// Root of all errors of the platform library. An error is a value that says what happened, where it was
/// raised, through which calls (with backtraces on) and what caused it. It owns its cause. Objects are
/// not shared between threads while they are read: what() fills a cache without a lock.
///
/// A throw site calls raiseAt(KES_HERE, Error(...)). Who caught a base class reference passes the error
/// on with raise(), which keeps the dynamic type; who keeps it beyond the catch block keeps clone().
class Exception : public std::exception {
 public:
  ~Exception() override;
  Exception& operator=(const Exception&) = delete;

  /// The whole explanation, several lines without a final newline; valid while the object lives and is not
  /// moved from. It is built once: what is set or streamed later is missing, though not in copies. Being
  /// noexcept, as the standard wants it, it ends the program if memory runs out while it builds the text.
  /// Every other operation lets std::bad_alloc through, and may be tried again: no text is ever cut short.
  const char* what() const noexcept override;
  /// The essence in one line, without location.
  virtual std::string text() const;
  /// Throws a copy of this object by its most derived type.
  [[noreturn]] virtual void raise() const = 0;
  /// A new copy of the most derived type; the caller owns it.
  virtual Exception* clone() const = 0;
  /// Appends what this type has to say to the text of what().
  virtual void moreWhat() const;

  /// text() of this error, of its cause, of that one's cause, and so on.
  std::vector<std::string> allTexts() const;
  /// The same, one numbered line each: "#1) text\n".
  std::string textList() const;
  /// what() of this error and of all its causes, in numbered blocks, every line indented by a tab.
  std::string exStack() const;

  /// The cause, which stays this error's; null when none is known.
  const Exception* next() const noexcept { return next_.get(); }
  /// Makes a copy of `cause` the cause of this error; an earlier one is dropped.
  void setNext(const Exception& cause);

  const char* file() const noexcept { return file_; }          ///< null when raised without a site
  int line() const noexcept { return line_; }                  ///< 0 when raised without a site
  const char* function() const noexcept { return function_; }  ///< null when raised without a site
  /// The calls that led to the throw site; empty with backtraces off.
  const Backtrace& backtrace() const noexcept;

  /// Whether errors collect a backtrace at their throw site.
  static bool m_gen_backtraces;
  /// Switches backtraces on when the environment variable KES_BACKTRACE exists, whatever its value, and
  /// off otherwise. Called once, before threads are started.
  static void init();

  void setSite(const Site& site) noexcept;   ///< for locateAt(), as is the next one
  void setBacktrace(Backtrace&& backtrace);  ///< std::bad_alloc

 protected:
  Exception() = default;
  /// The copy has a cause of its own; its text is built anew.
  Exception(const Exception& other);
  /// Leaves `other` without a cause.
  Exception(Exception&& other) noexcept;

  /// Adds to the text of what(); for moreWhat().
  void appendWhat(const std::string& more) const { whatText_ += more; }

 private:
  /// The text of what(), built when it is wanted first.
  const std::string& explanation() const;
  std::string whereText() const;

  std::unique_ptr<Exception> next_;
  const char* file_ = nullptr;
  int line_ = 0;
  const char* function_ = nullptr;
  mutable std::string whatText_;
  std::shared_ptr<const Backtrace> backtrace_;  // never changed, so copies of the error share it
};

/// Gives an error class its raise() and clone(): `class E : public Raisable<E, Base>`. Constructors of
/// Base are inherited.
template <typename Derived, typename Base>
class Raisable : public Base {
 public:
  using Base::Base;

  /// As Exception::raise(): throws a Derived. Any thread may call.
  [[noreturn, gnu::always_inline]] void raise() const override { throw static_cast<const Derived&>(*this); }
  /// As Exception::clone(): a new Derived. Any thread may call.
  Exception* clone() const override { return new Derived(static_cast<const Derived&>(*this)); }
};

/// Fills in where an error arises: the site and, with backtraces on, the calling thread's stack. Always
/// inlined, so that the first frame is the throw site's own. Any thread may call. std::bad_alloc.
[[gnu::always_inline]] inline void locateAt(const Site& site, Exception& error) {
  error.setSite(site);
  if (Exception::m_gen_backtraces) error.setBacktrace(Backtrace::get());
}

/// Raises an error from a site: locates it there and throws a copy by its most derived type. Any thread may
/// call. Raises what raise() of the error does, or std::bad_alloc.
[[noreturn, gnu::always_inline]] inline void raiseAt(const Site& site, Exception& error) {
  locateAt(site, error);
  error.raise();
  std::terminate();  // never reached: GCC forgets [[noreturn]] when it knows which override is called
}

/// The same for an error made on the spot. Where its type is what it is called, raise() becomes a part of the
/// throw site: every frame that an exception passes is paid for, and so is every branch that it could take.
/// Any thread may call; raises as above.
template <typename Error>
requires std::is_base_of_v<Exception, Error>
[[noreturn, gnu::always_inline]] inline void raiseAt(const Site& site, Error&& error) {
  locateAt(site, error);
  if constexpr (!std::is_abstract_v<Error>) {
    if (typeid(error) == typeid(Error)) error.Error::raise();
  }
  error.raise();
  std::terminate();  // never reached, as above
}

}  // namespace kes

KES_EXPORT_END
