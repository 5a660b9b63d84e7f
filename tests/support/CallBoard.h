#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "support/Calls.h"

namespace kes::test {

/// What is known and wanted of one call.
struct CallRecord {
  std::atomic<int> made{0};
  std::atomic<int> struck{0};
  std::atomic<int> error{0}, skip{0}, times{0};  ///< of a refusal; no times: there is none
  std::atomic<int> option{Which::any};
  std::atomic<std::size_t> most{0};  ///< of a short transfer
  std::atomic<int> shortSkip{0}, shortTimes{0};
};

/// The state behind Calls.h. It holds no address, so that several processes can share one.
struct CallBoard {
  std::array<CallRecord, static_cast<std::size_t>(Call::Last)> records{};
  std::atomic<bool> suspended{false};  ///< calls pass, and nobody counts
  std::atomic<bool> tracing{false};
  std::atomic<std::uint32_t> traced{0};
  std::array<Call, 1 << 16> trace{};

  CallRecord& operator[](Call call) { return records[static_cast<std::size_t>(call)]; }
};

/// The one that calls go by. From now on another one, if that is given.
CallBoard& board(CallBoard* another = nullptr);

/// Lets this thread's calls pass uncounted while it lives.
class Aside {
 public:
  Aside() noexcept;
  ~Aside();
  Aside(const Aside&) = delete;
  Aside& operator=(const Aside&) = delete;
};

}  // namespace kes::test
