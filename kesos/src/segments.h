#pragma once

#include <sys/shm.h>

#include <cstddef>

/// What the systems do differently with shared memory.
namespace kes::os {

/// Keeps an attached segment out of the children of this process, which then do not count as attached; false
/// when the system gives it to them all the same. The address is one that shmat() chose.
bool keepFromChildren(void* address, std::size_t size) noexcept;

/// Whether the segment was removed, and is only there for who has it attached.
bool isRemoved(const shmid_ds& state) noexcept;

}  // namespace kes::os
