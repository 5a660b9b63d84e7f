// A message catalogue of any content: what is found lies in the file, and every number has a form.
#include <string>
#include <string_view>

#include "MoFile.h"
#include "PluralRule.h"
#include "Target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const kes::MoFile file(bytes);
  if (file.isRight()) {
    for (const char* text : {"", "a", "%d file"}) {
      const std::string_view found = file.find(text);
      require(found.data() == nullptr || found.data()[found.size()] == '\0');
    }
  }
  for (const std::string& header : {bytes, "Plural-Forms: nplurals=3; plural=" + bytes + ";"}) {
    const kes::PluralRule rule(header);
    for (const unsigned long number : {0UL, 1UL, 2UL, 100UL, ~0UL}) static_cast<void>(rule.formOf(number));
  }
  return 0;
}
