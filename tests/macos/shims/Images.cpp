#include <dlfcn.h>
#include <link.h>
#include <mach-o/dyld.h>

#include <atomic>
#include <cstdint>

namespace {

std::atomic<void (*)(const mach_header*, std::intptr_t)> removalListener = nullptr;

std::uint64_t removals() {
  std::uint64_t count = 0;
  ::dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* counter) {
        *static_cast<std::uint64_t*>(counter) = info->dlpi_subs;
        return 1;
      },
      &count);
  return count;
}

}  // namespace

// One listener is enough here.
void _dyld_register_func_for_remove_image(void (*function)(const mach_header*, std::intptr_t)) {
  removalListener = function;
}

// Stands before the C library's: the only way in which an image is removed.
extern "C" int dlclose(void* handle) noexcept {
  static const auto real = reinterpret_cast<int (*)(void*)>(::dlsym(RTLD_NEXT, "dlclose"));
  const std::uint64_t before = removals();
  const int result = real(handle);
  if (removals() != before && removalListener != nullptr) removalListener.load()(nullptr, 0);
  return result;
}
