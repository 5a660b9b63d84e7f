#include "NameFormat.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <string_view>

namespace kes::pcap {

namespace {

constexpr std::size_t unlimited = std::numeric_limits<std::size_t>::max();

/// What stands between "%" and "s".
struct Conversion {
  std::size_t argument = 0;  ///< 1 or 2; 0 takes the next one
  bool left = false;
  std::size_t width = 0;
  std::size_t precision = unlimited;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Reads digits, none being 0; a number too large for any name stays that.
std::size_t readNumber(const char*& at) {
  constexpr std::size_t ceiling = 1'000'000;
  std::size_t number = 0;
  for (; isDigit(*at); ++at) number = std::min(number * 10 + static_cast<std::size_t>(*at - '0'), ceiling);
  return number;
}

bool readArgument(const char*& at, Conversion& conversion) {
  const char* behind = at;
  const std::size_t number = readNumber(behind);
  if (*behind != '$' || behind == at) return true;
  conversion.argument = number;
  at = behind + 1;
  return number == 1 || number == 2;
}

void readFlags(const char*& at, Conversion& conversion) {
  // Only "-" has a meaning for a string.
  for (; *at != '\0' && std::strchr("-+ #0'", *at) != nullptr; ++at) conversion.left |= *at == '-';
}

/// Reads one conversion behind its "%"; false, with nothing read, when it is none of a string.
bool readConversion(const char*& at, Conversion& conversion) {
  const char* behind = at;
  if (!readArgument(behind, conversion)) return false;
  readFlags(behind, conversion);
  conversion.width = readNumber(behind);
  if (*behind == '.') conversion.precision = readNumber(++behind);
  if (*behind != 's') return false;
  at = behind + 1;
  return true;
}

void appendConverted(std::string& name, const Conversion& conversion, std::string_view argument,
                     std::size_t limit) {
  argument = argument.substr(0, conversion.precision);
  const std::size_t width = std::min(conversion.width, limit + argument.size());
  const std::size_t padding = width > argument.size() ? width - argument.size() : 0;
  if (!conversion.left) name.append(padding, ' ');
  name += argument;
  if (conversion.left) name.append(padding, ' ');
}

}  // namespace

std::string expandName(const char* format, const char* first, const char* second, std::size_t limit) {
  const std::string_view arguments[] = {first, second};
  std::string name;
  std::size_t next = 1;
  while (*format != '\0' && name.size() < limit) {
    const char c = *format++;
    if (c != '%') {
      name += c;
      continue;
    }
    const char* behind = format;
    Conversion conversion;
    if (*format == '%') {
      name += *format++;
    } else if (readConversion(behind, conversion) && (conversion.argument != 0 || next <= 2)) {
      if (conversion.argument == 0) conversion.argument = next++;
      appendConverted(name, conversion, arguments[conversion.argument - 1], limit);
      format = behind;
    } else {
      name += '%';
    }
  }
  return name;
}

}  // namespace kes::pcap
