#include <cstdint>
#include <cstring>

#include "HexLoops.h"

namespace kes::hexloops::plain {

namespace {

/// The two digits of every byte value, as they lie in memory.
struct Digits {
  std::array<char[2], 256> of{};

  explicit constexpr Digits(const char (&digits)[17]) {
    for (unsigned value = 0; value < 256; ++value) {
      of[value][0] = digits[value >> 4];
      of[value][1] = digits[value & 15];
    }
  }
};

constexpr Digits lowerDigits("0123456789abcdef");
constexpr Digits upperDigits("0123456789ABCDEF");

/// Reads the pair at the front of a text; false when it is none.
inline bool readPair(const char* text, unsigned char& byte) noexcept {
  const unsigned char high = meaningOf(text[0]), low = meaningOf(text[1]);
  byte = static_cast<unsigned char>(high << 4 | low);
  return isDigit(high | low);
}

}  // namespace

void encode(const unsigned char* bytes, std::size_t size, bool upper, char* to) noexcept {
  const Digits& digits = upper ? upperDigits : lowerDigits;
  for (const unsigned char* end = bytes + size; bytes != end; ++bytes, to += 2) {
    std::memcpy(to, digits.of[*bytes], 2);
  }
}

void encodeSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper,
                     char* to) noexcept {
  const Digits& digits = upper ? upperDigits : lowerDigits;
  // Four characters go out in one store; the next byte overwrites the fourth.
  char unit[4] = {0, 0, separator, 0};
  for (const unsigned char* end = bytes + size; bytes != end; ++bytes, to += 3) {
    std::memcpy(unit, digits.of[*bytes], 2);
    std::memcpy(to, unit, 4);
  }
}

void decode(Decoding& decoding) noexcept {
  Decoding at = decoding;
  for (unsigned char byte; at.end - at.text >= 2 && readPair(at.text, byte); at.text += 2) *at.bytes++ = byte;
  decoding = at;
}

void decodeSeparated(Decoding& decoding) noexcept {
  Decoding at = decoding;
  for (unsigned char byte; at.end - at.text >= 3; at.text += 3) {
    if (meaningOf(*at.text) != Separator || !readPair(at.text + 1, byte)) break;
    *at.bytes++ = byte;
  }
  decoding = at;
}

}  // namespace kes::hexloops::plain
