#pragma once

#include <functional>
#include <optional>
#include <vector>

namespace kes::test {

/// The numbers of the system calls that `body` makes in a forked child, in order; those that only manage
/// memory are left out. None where this machine does not let us trace. An exception of `body` is
/// std::runtime_error here.
std::optional<std::vector<long>> systemCallsOf(const std::function<void()>& body);

}  // namespace kes::test
