#include "Stub.h"

#include <cstring>

namespace loader {

void writeStub(std::uint8_t* place, void (*function)(const char*), const char* argument) {
  std::uint8_t code[] = {0x48, 0xBF, 0, 0, 0, 0, 0, 0, 0, 0,  // mov $argument, %rdi
                         0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0,  // mov $function, %rax
                         0xFF, 0xE0};                         // jmp *%rax
  static_assert(sizeof code <= stubRoom);
  std::memcpy(code + 2, &argument, sizeof argument);
  std::memcpy(code + 12, &function, sizeof function);
  std::memcpy(place, code, sizeof code);
}

}  // namespace loader
