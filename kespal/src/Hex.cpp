#include <cstdlib>
#include <new>

#include "HexLoops.h"
#include "kespal/Helper.h"

namespace kes {

namespace {

using Bytes = std::basic_string<unsigned char>;
using hexloops::Decoding;

std::string hexBare(const unsigned char* bytes, std::size_t size, bool upper) {
  std::string text(2 * size, 0);
  hexloops::best::encode(bytes, size, upper, text.data());
  return text;
}

std::string hexSeparated(const unsigned char* bytes, std::size_t size, char separator, bool upper) {
  std::string text(3 * size, 0);
  hexloops::best::encodeSeparated(bytes, size, separator, upper, text.data());
  text.pop_back();
  return text;
}

bool nextDigit(Decoding& decoding, char& digit) noexcept {
  while (decoding.text != decoding.end) {
    digit = *decoding.text++;
    if (hexloops::meaningOf(digit) != hexloops::separatorCode) return true;
  }
  return false;
}

enum class Step { Byte, End, Malformed };

/// Reads one pair wherever its two characters lie between separators. What the C library reads as a number
/// of two characters counts as a pair, a sign or a rarer white space before one digit included.
Step decodePair(Decoding& decoding) noexcept {
  char pair[3] = "";
  if (!nextDigit(decoding, pair[0])) return Step::End;
  if (!nextDigit(decoding, pair[1])) return Step::Malformed;
  char* stopped = nullptr;
  const long value = std::strtol(pair, &stopped, 16);
  if (stopped != pair + 2) return Step::Malformed;
  *decoding.bytes++ = static_cast<unsigned char>(value);
  return Step::Byte;
}

}  // namespace

std::string hex(const void* data, std::size_t size, char separator, bool upper) {
  if (size == 0) return "";
  if (data == nullptr) return "<null>";
  if (size > std::string().max_size() / 3) throw std::bad_alloc();  // before the length overflows
  const auto* bytes = static_cast<const unsigned char*>(data);
  return separator == 0 ? hexBare(bytes, size, upper) : hexSeparated(bytes, size, separator, upper);
}

Bytes from_hex(const std::string& text) {
  Bytes bytes(text.size() / 2, 0);
  Decoding decoding{text.data(), text.data() + text.size(), bytes.data()};
  Step last = Step::Byte;
  while (last == Step::Byte) {
    hexloops::best::decode(decoding);
    hexloops::plain::decodeSeparated(decoding);
    last = decodePair(decoding);
  }
  bytes.resize(last == Step::End ? static_cast<std::size_t>(decoding.bytes - bytes.data()) : 0);
  return bytes;
}

}  // namespace kes
