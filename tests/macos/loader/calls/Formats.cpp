#include <cstdio>
#include <cwchar>
#include <string>
#include <string_view>
#include <type_traits>

#include "Calls.h"
#include "Variadic.h"

namespace loader {

namespace {

/// The format that this system needs for the program's arguments: where a long double is no more than a
/// double over there, its `L` says what a double's would, nothing to print and `l` to scan.
template <typename Character>
std::basic_string<Character> hostFormat(const Character* mac, std::basic_string_view<Character> ofDouble) {
  std::basic_string<Character> host = mac;
  if constexpr (std::is_same_v<MacLongDouble, double>) {
    constexpr char flags[] = "0123456789-+ #'*.$";
    const std::basic_string<Character> skipped(std::begin(flags), std::end(flags) - 1);
    for (std::size_t at = host.find('%'); at < host.size(); at = host.find('%', at + 1)) {
      at = host.find_first_not_of(skipped, at + 1);
      if (at < host.size() && host[at] == 'L') host.replace(at, 1, ofDouble);
    }
  }
  return host;
}
template <typename Character>
std::basic_string<Character> printFormat(const Character* mac) {
  return hostFormat<Character>(mac, {});
}
std::string scanFormat(const char* mac) { return hostFormat<char>(mac, "l"); }

int printFile(std::FILE* file, const char* format, MacList list) {
  return std::vfprintf(file, printFormat(format).c_str(), HostArguments(list).list);
}
int print(const char* format, MacList list) { return printFile(stdout, format, list); }
int printUnbounded(char* buffer, const char* format, MacList list) {
  return std::vsprintf(buffer, printFormat(format).c_str(), HostArguments(list).list);
}
int printBounded(char* buffer, std::size_t size, const char* format, MacList list) {
  return std::vsnprintf(buffer, size, printFormat(format).c_str(), HostArguments(list).list);
}
int printNew(char** buffer, const char* format, MacList list) {
  return ::vasprintf(buffer, printFormat(format).c_str(), HostArguments(list).list);
}
int printWide(wchar_t* buffer, std::size_t size, const wchar_t* format, MacList list) {
  return std::vswprintf(buffer, size, printFormat(format).c_str(), HostArguments(list).list);
}
int scan(const char* text, const char* format, MacList list) {
  return std::vsscanf(text, scanFormat(format).c_str(), HostArguments(list).list);
}
int scanFile(std::FILE* file, const char* format, MacList list) {
  return std::vfscanf(file, scanFormat(format).c_str(), HostArguments(list).list);
}

// This system has none that take a locale: the process's locale serves.
int printBoundedIn(char* buffer, std::size_t size, void*, const char* format, MacList list) {
  return printBounded(buffer, size, format, list);
}
int printNewIn(char** buffer, void*, const char* format, MacList list) {
  return printNew(buffer, format, list);
}
int scanIn(const char* text, void*, const char* format, MacList list) { return scan(text, format, list); }

const Call calls[] = {
    {"printf", variadic<print>},
    {"vprintf", print},
    {"fprintf", variadic<printFile>},
    {"vfprintf", printFile},
    {"sprintf", variadic<printUnbounded>},
    {"vsprintf", printUnbounded},
    {"snprintf", variadic<printBounded>},
    {"vsnprintf", printBounded},
    {"asprintf", variadic<printNew>},
    {"vasprintf", printNew},
    {"swprintf", variadic<printWide>},
    {"sscanf", variadic<scan>},
    {"vsscanf", scan},
    {"fscanf", variadic<scanFile>},
    {"snprintf_l", variadic<printBoundedIn>},
    {"asprintf_l", variadic<printNewIn>},
    {"sscanf_l", variadic<scanIn>},
};

}  // namespace

std::span<const Call> formatCalls() { return calls; }

}  // namespace loader
