// A script of the driver stand-in: parsed, and its first replies made.
#include <stdexcept>

#include "Script.h"
#include "Target.h"

using namespace kes;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  try {
    driver::Script script = driver::parseScript(std::string(data, data + size));
    for (const auto call : {driver::CallName::Open, driver::CallName::Trace, driver::CallName::Packet}) {
      const driver::Play* play = script.next(call);
      if (play != nullptr) play->datagram({}, {});
    }
    script.unplayed();
  } catch (const std::runtime_error&) {  // a mistake in the script, said so
  }
  return 0;
}
