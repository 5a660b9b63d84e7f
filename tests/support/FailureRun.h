#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <string>

#include "support/CallBoard.h"

namespace kes::test {

/// What fails in a run.
struct Run {
  enum Kind { Counting, Failing, Moving, Cancelling, Forking };
  Kind kind = Counting;
  Call call = Call::Last;
  int number = 0;
  int error = 0;
  std::size_t most = 0;
  bool isForGood = false;
};

std::string described(const Run& run);

bool isAllocation(Call call);
bool isMemory(const Run& run);

/// What a child says to the parent.
struct RunReport {
  CallBoard board;
  std::atomic<bool> isOver{false};
  std::atomic<bool> complains{false};
  std::array<char, 4000> complaint{};
};

/// Memory that children share.
RunReport& shared();

/// The first one counts: what follows is mostly its consequence.
void complain(const std::string& what);

}  // namespace kes::test
