#include "Pcap.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::driver {
namespace {

constexpr std::size_t readAhead = 1 << 16;

[[noreturn]] void fail(const std::string& file, const char* why) {
  throw std::runtime_error("cannot replay " + file + ": " + why);
}

/// What is behind the stream that libpcap reads: the file, but for the snapshot length that the header of a
/// classic capture promises. libpcap cuts what is longer, and many files hold packets that are; 0 promises
/// nothing.
class UncutFile {
 public:
  explicit UncutFile(const std::string& name) : file_(::open(name.c_str(), O_RDONLY | O_CLOEXEC)) {}

  bool isOpen() const { return static_cast<bool>(file_); }

  ssize_t read(char* bytes, std::size_t size) {
    const ssize_t got = sys::retry([&] { return ::read(file_.get(), bytes, size); });
    if (got <= 0) return got;
    if (at_ == 0) isClassic_ = !isNextGeneration({bytes, static_cast<std::size_t>(got)});
    const std::size_t end = at_ + static_cast<std::size_t>(got);
    for (std::size_t i = std::max(at_, promiseStart); isClassic_ && i < std::min(end, promiseEnd); ++i) {
      bytes[i - at_] = 0;
    }
    at_ = end;
    return got;
  }

 private:
  static constexpr std::size_t promiseStart = 16, promiseEnd = 20;

  static bool isNextGeneration(std::string_view start) { return start.starts_with("\x0a\x0d\x0d\x0a"); }

  sys::Descriptor file_;
  std::size_t at_ = 0;
  bool isClassic_ = false;
};

ssize_t readUncut(void* file, char* bytes, std::size_t size) {
  return static_cast<UncutFile*>(file)->read(bytes, size);
}

int closeUncut(void* file) {
  delete static_cast<UncutFile*>(file);
  return 0;
}

std::FILE* openUncut(const std::string& name) {
  auto file = std::make_unique<UncutFile>(name);
  if (!file->isOpen()) return nullptr;
  cookie_io_functions_t functions{};
  functions.read = readUncut;
  functions.close = closeUncut;
  std::FILE* stream = ::fopencookie(file.get(), "r", functions);
  if (stream != nullptr) static_cast<void>(file.release());
  return stream;
}

}  // namespace

void PcapCloser::operator()(pcap* handle) const { ::pcap_close(handle); }

PcapHandle openCapture(const std::string& file) {
  std::FILE* stream = openUncut(file);
  if (stream == nullptr) fail(file, std::strerror(errno));
  std::setvbuf(stream, nullptr, _IOFBF, readAhead);
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  PcapHandle capture(
      ::pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error.data()));
  if (!capture) {
    std::fclose(stream);
    fail(file, error.data());
  }
  mustBeEthernet(capture, file);
  return capture;
}

void mustBeEthernet(const PcapHandle& handle, const std::string& source) {
  const int type = ::pcap_datalink(handle.get());
  if (type == DLT_EN10MB) return;
  const char* name = ::pcap_datalink_val_to_name(type);
  const std::string label = name == nullptr ? std::to_string(type) : name;
  throw std::runtime_error(source + " has link type " + label + "; only Ethernet (EN10MB) is served");
}

}  // namespace kes::driver
