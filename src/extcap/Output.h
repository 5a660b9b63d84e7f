#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "kespal/NoCopy.h"
#include "pcaplib/Writer.h"
#include "sys/Owner.h"

namespace kes::extcap {

/// The pipe of the analyser, or a file: packets with their time of arrival, in nanoseconds. Used by one
/// thread.
class Output : public NoCopy {
 public:
  /// Opens it, and waits for the reader of a pipe. kes::FsError.
  explicit Output(const std::string& path);

  /// False once nobody reads the pipe any more: as far as writing has shown, or `watch()`.
  bool isRead() const { return isRead_; }
  /// To be polled for no events: there are some when nobody reads the pipe any more. -1 for a file.
  int watch() const { return watch_.get(); }
  void noteEnd() { isRead_ = false; }

  /// Whether the packet went out. kes::FsError where that fails for another reason than a reader that is
  /// gone.
  bool write(const unsigned char* packet, std::size_t length);
  /// The longest time that a packet waited for the reader.
  std::chrono::nanoseconds longestWait() const { return longestWait_; }

 private:
  std::string path_;
  pcap::Writer writer_;
  sys::Descriptor watch_;
  bool isRead_ = true;
  std::chrono::nanoseconds longestWait_{};
};

}  // namespace kes::extcap
