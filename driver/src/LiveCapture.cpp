#include "LiveCapture.h"

#include <pcap/pcap.h>

#include <array>
#include <iostream>
#include <stdexcept>

namespace kes::driver {
namespace {

// One byte above what is served tells that a packet is longer; every byte more makes the kernel's buffer hold
// fewer packets, for in immediate mode each takes a slot of this size.
constexpr int snapLength = maxPacket + 1;
constexpr int kernelBuffer = 1 << 24;
constexpr int packetsPerTurn = 64;

[[noreturn]] void fail(const std::string& interface, const std::string& why) {
  throw std::runtime_error("cannot capture on " + interface + ": " + why);
}

PcapHandle openInterface(const std::string& name) {
  std::array<char, PCAP_ERRBUF_SIZE> error{};
  PcapHandle capture(::pcap_create(name.c_str(), error.data()));
  if (!capture) fail(name, error.data());
  ::pcap_set_snaplen(capture.get(), snapLength);
  ::pcap_set_buffer_size(capture.get(), kernelBuffer);
  ::pcap_set_immediate_mode(capture.get(), 1);
  if (const int result = ::pcap_activate(capture.get()); result < 0) {
    const std::string detail = ::pcap_geterr(capture.get());
    fail(name, detail.empty() ? ::pcap_statustostr(result) : detail);
  }
  if (::pcap_setnonblock(capture.get(), 1, error.data()) != 0) fail(name, error.data());
  mustBeEthernet(capture, name);
  return capture;
}

void passOn(u_char* driver, const pcap_pkthdr* header, const u_char* bytes) {
  reinterpret_cast<Driver*>(driver)->packetSeen({bytes, header->caplen});
}

}  // namespace

LiveCapture::LiveCapture(const std::string& interface, EventLoop& loop, Driver& driver)
    : interface_(interface), loop_(loop), driver_(driver), capture_(openInterface(interface)) {
  const int fd = ::pcap_get_selectable_fd(capture_.get());
  if (fd < 0) fail(interface, "it cannot be waited for");
  loop_.watch(fd, [this] { read(); });
}

void LiveCapture::read() {
  auto* driver = reinterpret_cast<u_char*>(&driver_);
  if (::pcap_dispatch(capture_.get(), packetsPerTurn, passOn, driver) >= 0) return;
  std::cerr << "kesdriver: " << interface_ << ": " << ::pcap_geterr(capture_.get()) << '\n';
  loop_.forget(::pcap_get_selectable_fd(capture_.get()));
}

void LiveCapture::printTotals(std::ostream& out) const {
  pcap_stat counts{};
  if (::pcap_stats(capture_.get(), &counts) != 0) return;
  out << interface_ << ": " << counts.ps_recv << " received, " << counts.ps_drop << " lost in the kernel\n";
}

}  // namespace kes::driver
