// from_hex() of any text against its definition, and hex() back to the same bytes.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kespal/Helper.h"

namespace {

using Bytes = std::basic_string<unsigned char>;

/// Lower case, separators removed, two characters at a time through strtol.
Bytes plainFromHex(std::string digits) {
  std::erase_if(digits, [](char c) { return c == ':' || c == ' ' || c == '\t' || c == '\n'; });
  for (char& c : digits) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (digits.size() % 2 != 0) return {};
  Bytes bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    const std::string pair = digits.substr(at, 2);
    char* end = nullptr;
    bytes += static_cast<unsigned char>(std::strtol(pair.c_str(), &end, 16));
    if (end != pair.c_str() + 2) return {};
  }
  return bytes;
}

void check(bool right) {
  if (!right) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  check(kes::from_hex(text) == plainFromHex(text));
  const Bytes bytes(data, size);
  for (char separator : {'\0', ':', '\n'}) {
    check(kes::from_hex(kes::hex(data, size, separator, size % 2 != 0)) == bytes);
  }
  return 0;
}
