#pragma once

#include <array>
#include <csignal>
#include <set>
#include <string>

namespace kes::test {

/// What an operation may change around it: what of this there is now.
struct Surroundings {
  std::set<int> descriptors;
  int threadCount = 0;
  bool children = false;
  int objects = 0;
  sigset_t mask{};
  std::array<void (*)(int), 32> handlers{};

  static Surroundings now();
  /// Has the System V objects of the machine counted, too: for a program that runs while no other makes any.
  static bool countObjects() noexcept;

  /// What is there now and was not before.
  std::string addedTo(const Surroundings& before) const;
};

std::set<std::string> filesIn(const std::string& folder);

bool hasLocks(const std::string& folder);

}  // namespace kes::test
