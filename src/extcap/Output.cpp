#include "Output.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "Menu.h"
#include "kespal/error/FsError.h"

namespace kes::extcap {

namespace {

using Clock = std::chrono::steady_clock;

bool isPipe(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

}  // namespace

Output::Output(const std::string& path)
    : path_(path), writer_(path.c_str(), {.format = pcap::Format::NanosecondPcap, .linkType = linkType}) {
  if (!isPipe(path_)) return;
  watch_.reset(::open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  isRead_ = static_cast<bool>(watch_);
}

bool Output::write(const unsigned char* packet, std::size_t length) {
  const auto begin = Clock::now();
  const int errnum = writer_.write({.data = packet, .length = static_cast<std::uint32_t>(length)});
  longestWait_ = std::max(longestWait_, std::chrono::nanoseconds(Clock::now() - begin));
  isRead_ = errnum != EPIPE;
  if (errnum != 0 && isRead_) raiseAt(KES_HERE, FsError(path_, errnum));
  return errnum == 0;
}

}  // namespace kes::extcap
