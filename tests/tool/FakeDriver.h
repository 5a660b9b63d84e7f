#pragma once

#include <IOKit/IOKitLib.h>

#include <deque>
#include <string>
#include <vector>

namespace kes::test {

/// A driver inside the test's own process: every call of IOKit is written down, and answered from a list
/// (linker option --wrap).
struct FakeDriver {
  struct Answer {
    kern_return_t result = KERN_SUCCESS;
    std::string bytes = {};
    std::size_t claimed = 0;  ///< a count to report instead of the true one
  };

  std::vector<std::string> journal;
  std::deque<Answer> answers;  ///< without one, a call succeeds and gives nothing
  io_service_t matched = 5;    ///< the service that is found
  kern_return_t openResult = KERN_SUCCESS;
  kern_return_t scalarResult = KERN_SUCCESS;
};

extern FakeDriver fakeDriver;

}  // namespace kes::test
