#pragma once

#include <cstdint>

namespace loader {

class Image;

/// The descriptor of a thread-local variable in an image. Code that wants the variable calls `access` with
/// the descriptor as the first argument, and gets its address as the result, with other registers as they
/// were.
struct ThreadLocal {
  void (*access)();
  const Image* image;
  std::uint64_t offset;
};

extern "C" void threadLocalAccess();

}  // namespace loader
