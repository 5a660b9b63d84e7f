#include "support/NoMemory.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t unlimited = ~std::size_t{0};

// Plain thread-local values: operator new runs before constructors do.
thread_local constinit std::size_t t_allowed = unlimited;
thread_local constinit bool t_refused = false;
constinit std::atomic<bool (*)()> asked{nullptr};

bool isRefused() {
  const auto refuses = asked.load(std::memory_order_relaxed);
  return t_allowed == 0 || (refuses != nullptr && refuses());
}

}  // namespace

namespace kes::test {

NoMemory::NoMemory(std::size_t before) noexcept {
  t_refused = false;
  t_allowed = before;
}

NoMemory::~NoMemory() { t_allowed = unlimited; }

bool NoMemory::refused() noexcept { return t_refused; }

void NoMemory::ask(bool (*refuses)()) { asked = refuses; }

}  // namespace kes::test

// Not inlined: the compiler would then see new paired with free, and warn.
[[gnu::noinline]] void* operator new(std::size_t size) {
  if (isRefused()) {
    t_refused = true;
    throw std::bad_alloc();
  }
  if (t_allowed != unlimited) --t_allowed;
  // Not malloc(), which a test may count for itself.
  if (void* memory = std::realloc(nullptr, size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
