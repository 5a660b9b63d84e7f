#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Calls.h"

namespace loader {

namespace {

struct Frame {
  const Frame* caller;
  void* returnAddress;
};

/// Where the calling thread's stack ends.
const Frame* endOfStack() {
  pthread_attr_t attributes;
  void* begin = nullptr;
  std::size_t size = 0;
  if (::pthread_getattr_np(::pthread_self(), &attributes) != 0) return nullptr;
  ::pthread_attr_getstack(&attributes, &begin, &size);
  ::pthread_attr_destroy(&attributes);
  return reinterpret_cast<const Frame*>(static_cast<const char*>(begin) + size) - 1;
}

/// Follows the frame pointers, as macOS does: as long as they lead up the stack, and into the program's code.
int backtrace(void** addresses, int size) {
  const auto* frame = static_cast<const Frame*>(__builtin_frame_address(0));
  const Frame* const end = endOfStack();
  int count = 0;
  while (count < size && frame <= end) {
    const bool inProgram = std::ranges::any_of(
        program.images, [&](const Image* image) { return image->contains(frame->returnAddress); });
    if (!inProgram) break;
    addresses[count++] = frame->returnAddress;
    if (frame->caller <= frame) break;
    frame = frame->caller;
  }
  return count;
}

std::string describe(int number, const void* address) {
  char text[1024];
  for (const Image* image : program.images) {
    if (!image->contains(address)) continue;
    const auto [name, begin] = image->symbolBefore(address);
    const std::string module = image->path().substr(image->path().rfind('/') + 1);
    std::snprintf(
        text, sizeof text, "%-4d%-35s 0x%016lx %s + %lu", number, module.c_str(),
        reinterpret_cast<unsigned long>(address), name.c_str(),
        static_cast<unsigned long>(static_cast<const char*>(address) - static_cast<const char*>(begin)));
    return text;
  }
  std::snprintf(text, sizeof text, "%-4d%-35s 0x%016lx", number, "???",
                reinterpret_cast<unsigned long>(address));
  return text;
}

/// One block that the caller frees: the pointers, then the texts.
char** backtraceSymbols(void* const* addresses, int size) {
  std::vector<std::string> lines;
  std::size_t bytes = static_cast<std::size_t>(size) * sizeof(char*);
  for (int i = 0; i < size; ++i) {
    lines.push_back(describe(i, addresses[i]));
    bytes += lines.back().size() + 1;
  }
  auto* const block = static_cast<char**>(std::malloc(bytes));
  auto* text = reinterpret_cast<char*>(block + size);
  for (int i = 0; i < size; ++i) {
    block[i] = text;
    text = std::strcpy(text, lines[static_cast<std::size_t>(i)].c_str()) +
           lines[static_cast<std::size_t>(i)].size() + 1;
  }
  return block;
}

const Call calls[] = {{"backtrace", backtrace}, {"backtrace_symbols", backtraceSymbols}};

}  // namespace

std::span<const Call> backtraceCalls() { return calls; }

}  // namespace loader
