#include "support/FailureRun.h"

#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

namespace kes::test {

std::string described(const Run& run) {
  if (run.kind == Run::Counting) return "nothing";
  const std::string which = std::string(infoOf(run.call).name) + " number " + std::to_string(run.number);
  const std::string times = run.isForGood ? ", and all after it" : "";
  switch (run.kind) {
    case Run::Failing: {
      const char* const name = ::strerrorname_np(run.error);
      return which + " refused with " + (name != nullptr ? name : std::to_string(run.error)) + times;
    }
    case Run::Moving:
      return which + " moves " +
             (run.most == Shorten::half ? "half"
                                        : (run.most == Shorten::allButOne ? "all but one" : "one byte")) +
             times;
    case Run::Cancelling:
      return "cancelled at " + which;
    default:
      return "forked after " + which;
  }
}

RunReport& shared() {
  static RunReport* const memory = [] {
    void* const at =
        ::mmap(nullptr, sizeof(RunReport), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (at == MAP_FAILED) throw std::bad_alloc();
    return new (at) RunReport;
  }();
  return *memory;
}

void complain(const std::string& what) {
  if (shared().complains.exchange(true)) return;
  const std::size_t size = std::min(what.size(), shared().complaint.size() - 1);
  std::copy_n(what.data(), size, shared().complaint.data());
  shared().complaint[size] = 0;
}

bool isAllocation(Call call) {
  constexpr Call calls[] = {Call::operatorNew, Call::malloc, Call::calloc, Call::strdup};
  return std::ranges::count(calls, call) != 0;
}

bool isMemory(const Run& run) {
  return run.kind == Run::Failing && (run.error == ENOMEM || isAllocation(run.call));
}

}  // namespace kes::test
