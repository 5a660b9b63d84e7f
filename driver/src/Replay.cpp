#include "Replay.h"

#include <pcap/pcap.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace kes::driver {
namespace {

constexpr std::size_t readAhead = 1 << 16;

[[noreturn]] void fail(const std::string& file, const char* why) {
  throw std::runtime_error("cannot replay " + file + ": " + why);
}

PcapHandle openCapture(const std::string& file) {
  std::FILE* stream = std::fopen(file.c_str(), "rbe");
  if (stream == nullptr) fail(file, std::strerror(errno));
  std::setvbuf(stream, nullptr, _IOFBF, readAhead);
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  PcapHandle capture(::pcap_fopen_offline(stream, error.data()));
  if (!capture) {
    std::fclose(stream);
    fail(file, error.data());
  }
  mustBeEthernet(capture, file);
  return capture;
}

}  // namespace

void PcapCloser::operator()(pcap* handle) const { ::pcap_close(handle); }

void mustBeEthernet(const PcapHandle& handle, const std::string& source) {
  const int type = ::pcap_datalink(handle.get());
  if (type == DLT_EN10MB) return;
  const char* name = ::pcap_datalink_val_to_name(type);
  const std::string label = name == nullptr ? std::to_string(type) : name;
  throw std::runtime_error(source + " has link type " + label + "; only Ethernet (EN10MB) is served");
}

Replay::Replay(std::vector<std::string> files, bool loop) : files_(std::move(files)), loop_(loop) {
  for (const std::string& file : files_) openCapture(file);
}

std::optional<iokit::Bytes> Replay::next() {
  for (;;) {
    if (!capture_ && !openNext()) return std::nullopt;
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = ::pcap_next_ex(capture_.get(), &header, &bytes);
    if (result == 1) {
      sawPacket_ = sawPacket_ || header->caplen > 0;
      return iokit::Bytes(bytes, header->caplen);
    }
    if (result == PCAP_ERROR) {
      std::cerr << "kesdriver: " << files_[index_ - 1] << ": " << ::pcap_geterr(capture_.get()) << '\n';
    }
    capture_.reset();
  }
}

bool Replay::openNext() {
  if (index_ == files_.size()) {
    if (!loop_ || !sawPacket_) return false;
    index_ = 0;
    sawPacket_ = false;
  }
  try {
    capture_ = openCapture(files_[index_++]);
    return true;
  } catch (const std::runtime_error& error) {  // it was there at the start
    std::cerr << "kesdriver: " << error.what() << '\n';
    return openNext();
  }
}

}  // namespace kes::driver
