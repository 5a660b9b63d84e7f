#include "kespal/Backtrace.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <memory>
#include <ostream>

namespace kes {

namespace {

struct Free {
  void operator()(void* memory) const noexcept { std::free(memory); }
};

// A line without these two characters, as macOS writes it, gives everything before its end as "symbol";
// that does not demangle and so comes back unchanged.
std::string readable(const std::string& line) {
  const std::size_t begin = line.find('(') + 1;
  const std::size_t plus = line.rfind('+');
  const std::size_t end = plus == line.npos ? line.size() : plus;
  if (end < begin) return line;
  std::string symbol = line.substr(begin, end - begin);
  demangle(symbol);
  return line.substr(0, begin) + symbol + line.substr(end);
}

}  // namespace

Backtrace Backtrace::get() {
  constexpr int most = 128;
  void* frames[most];
  const int count = ::backtrace(frames, most);
  Backtrace trace;
  if (count <= 1) return trace;
  const std::unique_ptr<char*, Free> lines(::backtrace_symbols(frames, count));
  if (!lines) return trace;
  for (int frame = count - 1; frame >= 1; --frame) trace.push_back(readable(lines.get()[frame]));
  return trace;
}

std::ostream& operator<<(std::ostream& stream, const Backtrace& backtrace) {
  for (auto line = backtrace.rbegin(); line != backtrace.rend(); ++line) stream << *line << '\n';
  return stream;
}

void demangle(std::string& name) {
  int status = 0;
  const std::unique_ptr<char, Free> text(abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status));
  if (status == 0 && text) name = text.get();
}

}  // namespace kes
