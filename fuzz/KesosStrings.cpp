// The bounded string functions on any bytes and sizes, held against plain models; the sanitizers watch the
// buffers' ends.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "Target.h"
#include "kesos/strings.h"

namespace {

/// Takes a test case apart.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

  std::size_t number() {
    if (rest_.empty()) return 0;
    const auto value = static_cast<unsigned char>(rest_[0]);
    rest_.erase(0, 1);
    return value;
  }
  std::string text() {
    const std::string text = rest_.substr(0, number());
    rest_.erase(0, text.size());
    return text.c_str();
  }

 private:
  std::string rest_;
};

/// A destination of exactly the capacity, so that one byte too many is seen; it holds `text` cut to fit.
std::vector<char> buffer(std::size_t capacity, const std::string& text) {
  std::vector<char> bytes(capacity, '#');
  if (capacity == 0) return bytes;
  const std::size_t kept = std::min(text.size(), capacity - 1);
  std::copy_n(text.begin(), kept, bytes.begin());
  bytes[kept] = '\0';
  return bytes;
}

/// The source as an array of its own length, which the sanitizer guards.
std::vector<char> exact(const std::string& text) { return {text.c_str(), text.c_str() + text.size() + 1}; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::size_t capacity = input.number() % 64, n = input.number() % 80;
  const std::string old = input.text(), source = input.text();
  const std::vector<char> from = exact(source);
  const std::vector<char> unterminated(source.begin(), source.end());

  std::vector<char> to = buffer(capacity, old);
  const std::string before = capacity > 0 ? to.data() : "";
  strcpy_kes(to.data(), capacity, from.data());
  if (capacity > 0) require(to.data() == source.substr(0, capacity - 1));

  to = buffer(capacity, old);
  strcat_kes(to.data(), capacity, from.data());
  if (capacity > 0) require(to.data() == (before + source).substr(0, capacity - 1));

  to = buffer(capacity, old);
  const std::size_t taken = std::min(n, source.size());
  strncpy_kes(to.data(), capacity, unterminated.empty() ? "" : unterminated.data(), taken);
  if (capacity > 0) require(to.data() == source.substr(0, std::min(taken, capacity - 1)));

  to = buffer(capacity, old);
  strncat_kes(to.data(), capacity, from.data(), n);
  if (capacity > 0 && n > 0) {
    const std::string joined = (before + source.substr(0, n)).substr(0, capacity - 1);
    require(std::equal(joined.begin(), joined.end(), to.begin()));
    if (before.size() + source.size() >= capacity) require(to.back() == '\0');
  }

  require(strlen_kes(from.data(), n) == std::min(n, source.size()));
  std::vector<char> text = exact(source);
  require(std::strlen(strupr(text.data())) == source.size());
  require(std::strlen(strlwr(text.data())) == source.size());
  to = buffer(capacity, old);
  const int length = sprintf_kes(to.data(), capacity, "%s|%zu", from.data(), n);
  require(length == 0 ? capacity == 0 : length > 0 && std::strlen(to.data()) < capacity);
  return 0;
}
