#include "Hex.h"

#include <stdexcept>

namespace kes::driver {
namespace {

int digitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  throw std::runtime_error(std::string("no hexadecimal digit: ") + c);
}

}  // namespace

std::string toHex(iokit::Bytes bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const std::uint8_t byte : bytes) {
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

std::vector<std::uint8_t> fromHex(std::string_view text) {
  if (text.size() % 2 != 0) throw std::runtime_error("an odd number of hexadecimal digits");
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(digitOf(text[i]) << 4 | digitOf(text[i + 1])));
  }
  return bytes;
}

}  // namespace kes::driver
