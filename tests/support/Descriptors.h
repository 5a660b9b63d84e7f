#pragma once

#include <string>
#include <vector>

namespace kes::test {

/// The open descriptors of this process and what they lead to, as "3 -> /dev/null". Two lists that were
/// taken before and after differ when something was left open.
std::vector<std::string> openDescriptors();

/// Whether a descriptor is closed by exec.
bool isCloseOnExec(int fd);

}  // namespace kes::test
