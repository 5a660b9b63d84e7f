#include "Replay.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <iostream>
#include <stdexcept>

namespace kes::driver {
namespace {

// The capture was opened for nanoseconds, which stand in the place of the microseconds.
std::chrono::nanoseconds timeOf(const pcap_pkthdr& header) {
  return std::chrono::seconds(header.ts.tv_sec) + std::chrono::nanoseconds(header.ts.tv_usec);
}

}  // namespace

Replay::Replay(const std::vector<std::string>& files, bool loop) : loop_(loop) {
  for (const std::string& name : files) files_.push_back(survey(name));
}

Replay::File Replay::survey(const std::string& name) {
  File file{.name = name};
  const PcapHandle capture = openCapture(name);
  pcap_pkthdr* header = nullptr;
  const u_char* bytes = nullptr;
  while (::pcap_next_ex(capture.get(), &header, &bytes) == 1) {
    ++file.packets;
    if (header->caplen < header->len) ++file.shortened;
  }
  return file;
}

std::optional<iokit::Bytes> Replay::next() {
  for (;;) {
    if (!capture_ && !openNext()) return std::nullopt;
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = ::pcap_next_ex(capture_.get(), &header, &bytes);
    if (result == 1) {
      sawPacket_ = sawPacket_ || header->caplen > 0;
      note(timeOf(*header));
      return iokit::Bytes(bytes, header->caplen);
    }
    if (result == PCAP_ERROR) {
      std::cerr << "kesdriver: " << files_[index_ - 1].name << ": " << ::pcap_geterr(capture_.get()) << '\n';
    }
    capture_.reset();
    lastTime_.reset();
  }
}

void Replay::note(std::chrono::nanoseconds time) {
  gap_ = std::max(time - lastTime_.value_or(time), std::chrono::nanoseconds(0));
  lastTime_ = time;
}

bool Replay::openNext() {
  if (index_ == files_.size()) {
    if (!loop_ || !sawPacket_) return false;
    index_ = 0;
    sawPacket_ = false;
  }
  try {
    capture_ = openCapture(files_[index_++].name);
    return true;
  } catch (const std::runtime_error& error) {  // it was there at the start
    std::cerr << "kesdriver: " << error.what() << '\n';
    return openNext();
  }
}

void Replay::printShortened(std::ostream& out) const {
  for (const File& file : files_) {
    if (file.shortened == 0) continue;
    out << file.name << ": " << file.shortened << " of " << file.packets
        << " packets are shorter than they were on the wire\n";
  }
}

}  // namespace kes::driver
