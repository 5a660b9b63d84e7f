#pragma once

#include <cstddef>

/// What the systems do differently with shared memory in a forked child.
namespace kes::os {

/// Keeps an attached segment out of the children of this process, which then do not count as attached; false
/// when the system gives it to them all the same. The address is one that shmat() chose.
bool keepFromChildren(void* address, std::size_t size) noexcept;

}  // namespace kes::os
