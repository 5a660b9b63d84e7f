#include <string>

#include "NameFormat.h"
#include "Target.h"

/// Any text as a capture name: nothing is read or written that should not be, the result stays bounded, and a
/// result below the limit does not depend on it.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t limit = 1024;
  const std::string name(reinterpret_cast<const char*>(data), size);
  const std::string format = name.c_str();
  const std::string result = kes::pcap::expandName(format.c_str(), "eth", format.c_str(), limit);
  require(result.size() <= 2 * (limit + format.size() + 3));
  if (result.size() < limit) {
    require(result == kes::pcap::expandName(format.c_str(), "eth", format.c_str(), 16 * limit));
  }
  if (format.find('%') == std::string::npos) require(format.substr(0, result.size()) == result);
  return 0;
}
