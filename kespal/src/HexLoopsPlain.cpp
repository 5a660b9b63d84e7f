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

/// What a character contributes to a byte in each place that it can have: above 0xFF where it has no
/// business.
struct Contributions {
  std::array<std::uint16_t, 256> separator{}, high{}, low{};

  constexpr Contributions() {
    constexpr std::uint16_t none = 0x100;
    for (unsigned c = 0; c < 256; ++c) {
      separator[c] = meaning[c] == separatorCode ? 0 : none;
      high[c] = isDigit(meaning[c]) ? static_cast<std::uint16_t>(meaning[c] << 4) : none;
      low[c] = isDigit(meaning[c]) ? meaning[c] : none;
    }
  }
};

constexpr Contributions contributions;

/// The byte that a pair of digits means; something above 0xFF when it is no pair.
unsigned pairValue(const char* text) noexcept {
  const auto* c = reinterpret_cast<const unsigned char*>(text);
  return contributions.high[c[0]] | contributions.low[c[1]];
}

/// The same of a pair with a separator before it.
unsigned separatedValue(const char* text) noexcept {
  return contributions.separator[static_cast<unsigned char>(*text)] | pairValue(text + 1);
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
  for (const unsigned char* end = bytes + size; bytes != end; ++bytes, to += 3) {
    std::memcpy(to, digits.of[*bytes], 2);
    to[2] = separator;
  }
}

void decode(Decoding& decoding) noexcept {
  Decoding at = decoding;
  for (; at.end - at.text >= 2; at.text += 2) {
    const unsigned value = pairValue(at.text);
    if (value > 0xFF) break;
    *at.bytes++ = static_cast<unsigned char>(value);
  }
  decoding = at;
}

void decodeSeparated(Decoding& decoding) noexcept {
  Decoding at = decoding;
  // Four at a time: one question for all, and no character is read again after a store.
  for (; at.end - at.text >= 12; at.text += 12, at.bytes += 4) {
    const unsigned a = separatedValue(at.text), b = separatedValue(at.text + 3);
    const unsigned c = separatedValue(at.text + 6), d = separatedValue(at.text + 9);
    if ((a | b | c | d) > 0xFF) break;
    at.bytes[0] = static_cast<unsigned char>(a);
    at.bytes[1] = static_cast<unsigned char>(b);
    at.bytes[2] = static_cast<unsigned char>(c);
    at.bytes[3] = static_cast<unsigned char>(d);
  }
  for (; at.end - at.text >= 3; at.text += 3) {
    const unsigned value = separatedValue(at.text);
    if (value > 0xFF) break;
    *at.bytes++ = static_cast<unsigned char>(value);
  }
  decoding = at;
}

}  // namespace kes::hexloops::plain
