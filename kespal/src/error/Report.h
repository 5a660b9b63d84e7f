#pragma once

#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <new>
#include <string_view>

#include "kespal/error/Exception.h"
#include "sys/NoCancel.h"

namespace kes {

/// The one way to say something where nothing may be thrown any more: in a destructor, a dying thread, a
/// guard, a notifier's caller, the terminate handler. A report goes to standard error in one write, and one
/// after the other, so that those of several threads do not mix, through the buffer of std::cerr but whatever
/// the state and the exception mask of that stream are. Nothing is ever thrown, no cancellation starts
/// meanwhile, and without memory the report is shorter, or written in several pieces.
using Pieces = std::initializer_list<std::string_view>;

/// What stands for the rest of a report that there was no memory for.
inline constexpr const char* noMemoryLeft = "(no memory left for the rest of this report)";

void report(Pieces text) noexcept;

/// The headline, the error with its causes as exStack() writes them, and `end`.
void reportStack(Pieces headline, const Exception& error, std::string_view end = "\n") noexcept;

/// The headline, the error's what(), and a newline.
void reportWhat(Pieces headline, const Exception& error) noexcept;
/// The same of an error that is not the library's; its what() may be null.
void reportWhat(Pieces headline, const std::exception& error) noexcept;

/// Does what a destructor has to do. An error of the library from it is reported as reportStack() does, and
/// so is the want of memory; any other exception ends the program.
template <typename Action>
void doReporting(Pieces headline, Action action) noexcept {
  const sys::NoCancel untilDone;
  try {
    action();
  } catch (const Exception& error) {
    reportStack(headline, error);
  } catch (const std::bad_alloc& error) {
    reportWhat(headline, error);
  }
}

/// A number as a piece of a report: it takes no memory.
class Decimal {
 public:
  explicit Decimal(std::uint64_t number) noexcept
      : end_(std::to_chars(digits_, digits_ + sizeof digits_, number).ptr) {}
  Decimal(const Decimal&) = delete;
  Decimal& operator=(const Decimal&) = delete;

  operator std::string_view() const noexcept {  // NOLINT(google-explicit-constructor): stands among texts
    return {digits_, static_cast<std::size_t>(end_ - digits_)};
  }

 private:
  char digits_[20];
  const char* end_;
};

}  // namespace kes
