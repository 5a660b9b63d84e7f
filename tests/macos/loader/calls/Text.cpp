#include <locale.h>
#include <cctype>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <type_traits>

#include "Calls.h"
#include "Processor.h"

namespace loader {

namespace {

// Character classes, as the bits that inline functions of the program test.
std::uint32_t classOf(int c) {
  struct Class {
    int (*is)(int);
    std::uint32_t bit;
  };
  static constexpr Class classes[] = {
      {std::isalpha, 0x100},    {std::iscntrl, 0x200},   {std::isdigit, 0x400},  {std::isgraph, 0x800},
      {std::islower, 0x1000},   {std::ispunct, 0x2000},  {std::isspace, 0x4000}, {std::isupper, 0x8000},
      {std::isxdigit, 0x10000}, {std::isblank, 0x20000}, {std::isprint, 0x40000}};
  std::uint32_t bits = 0;
  for (const Class& each : classes) {
    if (c >= 0 && c < 128 && each.is(c) != 0) bits |= each.bit;
  }
  return bits;
}

/// The table of the "C" locale that inline functions read directly.
struct RuneLocale {
  RuneLocale() {
    for (int c = 0; c < 256; ++c) {
      classes[c] = classOf(c);
      lower[c] = c < 128 ? std::tolower(c) : c;
      upper[c] = c < 128 ? std::toupper(c) : c;
    }
  }

  char magic[8] = {'R', 'u', 'n', 'e', 'M', 'a', 'g', 'A'};
  char encoding[32] = {};
  void* conversions[2] = {};
  std::int32_t invalid = 0;
  std::uint32_t classes[256];
  std::int32_t lower[256], upper[256];
  char ranges[512] = {};
} runes;

int maskRune(int c, std::uint64_t mask) { return static_cast<int>(classOf(c) & mask); }
int maskRuneIn(int c, std::uint64_t mask, void*) { return maskRune(c, mask); }
int lowerIn(int c, void*) { return c < 128 ? std::tolower(c) : c; }
int upperIn(int c, void*) { return c < 128 ? std::toupper(c) : c; }
int longestCharacter(void*) { return 1; }

char* setLocale(int mac, const char* name) {
  constexpr int categories[] = {LC_ALL, LC_COLLATE, LC_CTYPE, LC_MONETARY, LC_NUMERIC, LC_TIME, LC_MESSAGES};
  if (mac < 0 || mac >= static_cast<int>(std::size(categories))) return nullptr;
  return std::setlocale(categories[mac], name);
}
void* newLocale(int, const char* name, void*) { return ::newlocale(LC_ALL_MASK, name, nullptr); }
lconv* conventionsOf(void*) { return std::localeconv(); }

// Functions that take a locale, where this system has none that does: the process's locale serves.
std::wint_t wideOf(int c, void*) { return std::btowc(c); }
int narrowOf(std::wint_t c, void*) { return std::wctob(c); }
std::size_t wideFrom(wchar_t* to, const char* from, std::size_t size, std::mbstate_t* state, void*) {
  return std::mbrtowc(to, from, size, state);
}
std::size_t lengthOf(const char* from, std::size_t size, std::mbstate_t* state, void*) {
  return std::mbrlen(from, size, state);
}
std::size_t narrowFrom(char* to, wchar_t from, std::mbstate_t* state, void*) {
  return std::wcrtomb(to, from, state);
}
std::size_t allWide(wchar_t* to, const char** from, std::size_t size, std::mbstate_t* state, void*) {
  return std::mbsrtowcs(to, from, size, state);
}
std::size_t someWide(wchar_t* to, const char** from, std::size_t bytes, std::size_t size,
                     std::mbstate_t* state, void*) {
  return ::mbsnrtowcs(to, from, bytes, size, state);
}
std::size_t someNarrow(char* to, const wchar_t** from, std::size_t count, std::size_t size,
                       std::mbstate_t* state, void*) {
  return ::wcsnrtombs(to, from, count, size, state);
}
int oneWide(wchar_t* to, const char* from, std::size_t size, void*) { return std::mbtowc(to, from, size); }

/// No locale at all is the "C" locale over there.
locale_t hostLocale(void* mac) {
  static const locale_t c = ::newlocale(LC_ALL_MASK, "C", nullptr);
  return mac != nullptr ? static_cast<locale_t>(mac) : c;
}
long longOf(const char* text, char** end, int base, void* mac) {
  return ::strtol_l(text, end, base, hostLocale(mac));
}
long long longLongOf(const char* text, char** end, int base, void* mac) {
  return ::strtoll_l(text, end, base, hostLocale(mac));
}
unsigned long long unsignedOf(const char* text, char** end, int base, void* mac) {
  return ::strtoull_l(text, end, base, hostLocale(mac));
}
double doubleOf(const char* text, char** end, void* mac) { return ::strtod_l(text, end, hostLocale(mac)); }
float floatOf(const char* text, char** end, void* mac) { return ::strtof_l(text, end, hostLocale(mac)); }

template <typename Number = MacLongDouble>
Number longDoubleIn(const char* text, char** end, void* mac) {
  if constexpr (std::is_same_v<Number, double>) {
    return doubleOf(text, end, mac);
  } else {
    return ::strtold_l(text, end, hostLocale(mac));
  }
}
template <typename Number = MacLongDouble>
Number longDoubleOf(const char* text, char** end) {
  if constexpr (std::is_same_v<Number, double>) {
    return std::strtod(text, end);
  } else {
    return std::strtold(text, end);
  }
}
template <typename Number = MacLongDouble>
Number wideLongDoubleOf(const wchar_t* text, wchar_t** end) {
  if constexpr (std::is_same_v<Number, double>) {
    return std::wcstod(text, end);
  } else {
    return std::wcstold(text, end);
  }
}

const Call calls[] = {
    {"_DefaultRuneLocale", runes},   {"strtol_l", longOf},
    {"strtoll_l", longLongOf},       {"strtoull_l", unsignedOf},
    {"strtod_l", doubleOf},          {"strtof_l", floatOf},
    {"strtold_l", longDoubleIn<>},   {"strtold", longDoubleOf<>},
    {"wcstold", wideLongDoubleOf<>}, {"__maskrune", maskRune},
    {"__maskrune_l", maskRuneIn},    {"__tolower", lowerIn},
    {"__toupper", upperIn},          {"___tolower_l", lowerIn},
    {"___toupper_l", upperIn},       {"___mb_cur_max_l", longestCharacter},
    {"setlocale", setLocale},        {"newlocale", newLocale},
    {"localeconv_l", conventionsOf}, {"btowc_l", wideOf},
    {"wctob_l", narrowOf},           {"mbrtowc_l", wideFrom},
    {"mbrlen_l", lengthOf},          {"wcrtomb_l", narrowFrom},
    {"mbsrtowcs_l", allWide},        {"mbsnrtowcs_l", someWide},
    {"wcsnrtombs_l", someNarrow},    {"mbtowc_l", oneWide},
};

}  // namespace

std::span<const Call> textCalls() { return calls; }

}  // namespace loader
