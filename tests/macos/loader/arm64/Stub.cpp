#include "Stub.h"

#include <cstring>

namespace loader {

void writeStub(std::uint8_t* place, void (*function)(const char*), const char* argument) {
  constexpr std::uint32_t code[] = {0x58000080,   // ldr x0, argument
                                    0x580000B0,   // ldr x16, function
                                    0xD61F0200,   // br x16
                                    0xD503201F};  // nop: what follows lies on a multiple of 8
  static_assert(sizeof code + sizeof argument + sizeof function <= stubRoom);
  std::memcpy(place, code, sizeof code);
  std::memcpy(place + sizeof code, &argument, sizeof argument);
  std::memcpy(place + sizeof code + sizeof argument, &function, sizeof function);
}

}  // namespace loader
