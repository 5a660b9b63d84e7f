#pragma once

#include <array>
#include <cstddef>

/// The inner loops of hex(), from_hex() and the dump, twice: in portable C++, and with the best instructions
/// of the processor that is built for. Both give the same results; where nothing better is known here, the
/// second forwards to the first.
namespace kes::hexloops {

/// What a character of a hexadecimal text is: the value of a digit of either case, or one of these.
inline constexpr unsigned char separatorCode = 0x40, otherCode = 0x80;

inline constexpr auto meaning = [] {
  std::array<unsigned char, 256> table{};
  table.fill(otherCode);
  for (unsigned char digit = 0; digit < 10; ++digit) table['0' + digit] = digit;
  for (unsigned char digit = 10; digit < 16; ++digit) {
    table['a' + digit - 10] = digit;
    table['A' + digit - 10] = digit;
  }
  for (const char c : {':', ' ', '\t', '\n'}) table[static_cast<unsigned char>(c)] = separatorCode;
  return table;
}();

inline unsigned meaningOf(char c) noexcept { return meaning[static_cast<unsigned char>(c)]; }
constexpr bool isDigit(unsigned value) noexcept { return value < 16; }

/// A text that is being read and the bytes it becomes; there is room for half as many as characters remain.
struct Decoding {
  const char* text;
  const char* end;
  unsigned char* bytes;
};

namespace plain {

/// Writes two digits for each byte.
void encode(const unsigned char* bytes, std::size_t size, bool upper, char* to) noexcept;
/// The same with the separator behind each byte.
void encodeSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper,
                     char* to) noexcept;

/// Reads pairs of digits that follow one another without separators, as many as there are.
void decode(Decoding& decoding) noexcept;
/// Reads pairs of digits with exactly one separator before each, as many as there are.
void decodeSeparated(Decoding& decoding) noexcept;

}  // namespace plain

namespace best {

void encode(const unsigned char* bytes, std::size_t size, bool upper, char* to) noexcept;
void encodeSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper,
                     char* to) noexcept;
void decode(Decoding& decoding) noexcept;

}  // namespace best
}  // namespace kes::hexloops
