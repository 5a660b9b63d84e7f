// split(), replace() and replace_chars() of any text against their definitions. The first bytes of the input
// are the options, the pattern and the replacement.
#include <string>

#include "Target.h"
#include "kespal/Helper.h"
#include "kespal/PlainModels.h"

namespace {

using kes::test::Parts;
using kes::test::plainReplace;
using kes::test::plainReplaceChars;
using kes::test::plainSplit;

/// Takes the first characters of a text away and gives them.
std::string take(std::string& text, std::size_t count) {
  std::string front = text.substr(0, count);
  text.erase(0, count);
  return front;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  if (text.size() < 2) return 0;
  const std::string options = take(text, 2);
  const std::string pattern = take(text, options[0] & 3), replacement = take(text, options[0] >> 2 & 3);
  const bool strip = (options[0] & 16) != 0, keepEmpty = (options[0] & 32) != 0;

  static Parts parts;  // used again on purpose
  kes::helper::split(text, options[1], parts, strip, keepEmpty);
  require(parts == plainSplit(text, options[1], strip, keepEmpty));

  std::string replaced = text, model = text;
  require(kes::helper::replace(replaced, pattern, replacement) == plainReplace(model, pattern, replacement));
  require(replaced == model);

  replaced = model = text;
  require(kes::helper::replace_chars(replaced, pattern, replacement) ==
          plainReplaceChars(model, pattern, replacement));
  require(replaced == model);
  return 0;
}
