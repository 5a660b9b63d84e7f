// from_hex() of any text against its definition, and hex() back to the same bytes.
#include <string>

#include "Target.h"
#include "kespal/Helper.h"
#include "kespal/PlainModels.h"

namespace {

using kes::test::Bytes;
using kes::test::plainFromHex;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  require(kes::from_hex(text) == plainFromHex(text));
  const Bytes bytes(data, size);
  for (char separator : {'\0', ':', '\n'}) {
    require(kes::from_hex(kes::hex(data, size, separator, size % 2 != 0)) == bytes);
  }
  return 0;
}
