#pragma once

#include <string>

#include "Driver.h"
#include "EventLoop.h"
#include "sys/Owner.h"

namespace kes::driver {

/// Trace text from outside: a file, read as fast as the trace is fetched, or a pipe or terminal, read as text
/// comes. Throws std::system_error when it cannot be opened. Must outlive the loop's run.
class TraceSource {
 public:
  /// `name` is a path, or "-" for standard input.
  TraceSource(const std::string& name, EventLoop& loop, Driver& driver);

 private:
  /// Whether there was something.
  bool read(std::size_t limit);
  void readWhenReadable();
  void readOnDemand();

  std::string name_;
  EventLoop& loop_;
  Driver& driver_;
  sys::Descriptor file_;
};

}  // namespace kes::driver
