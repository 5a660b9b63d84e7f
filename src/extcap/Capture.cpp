#include "Capture.h"

#include <IOKit/IOReturn.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>
#include <utility>

#include "Ending.h"
#include "Menu.h"
#include "client/UserClient.h"
#include "kespal/error/OsError.h"

namespace kes::extcap {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int shortestSleep = 1, longestSleep = 10;  // milliseconds
constexpr unsigned packetsPerLook = 64;
constexpr auto tracePeriod = 1s;
constexpr auto longWait = 500ms;  // a driver's queue may overflow meanwhile

std::string counted(std::uint64_t number, const char* what) { return std::to_string(number) + ' ' + what; }

}  // namespace

std::string textOf(const Totals& totals) {
  const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(totals.wait).count();
  return counted(totals.packets, "packets of ") + counted(totals.bytes, "bytes taken, ") +
         counted(totals.tooLong, "lost as too long, ") + counted(totals.full, "perhaps cut; ") +
         counted(totals.empty, "calls found none, ") + counted(totals.failed, "failed; ") +
         "longest wait for the reader " + std::to_string(wait) + " ms";
}

bool tellsOfLosses(const Totals& totals) {
  return totals.tooLong + totals.full + totals.failed != 0 || totals.wait >= longWait;
}

Capture::Capture(const Request& request, Output& output)
    : output_(output), toolbar_(request.controlIn, request.controlOut), packets_(client::dumpRole) {
  if (request.levels) setLevels(*request.levels);
}

Totals Capture::totals() const {
  Totals totals = totals_;
  totals.wait = output_.longestWait();
  return totals;
}

void Capture::run() {
  int sleep = shortestSleep;
  unsigned sinceLook = 0;
  while (output_.isRead() && !Ending::isAskedFor()) {
    if (takeOne() == Found::Packet) {
      sleep = shortestSleep;
      if (++sinceLook % packetsPerLook == 0) attend(0);
    } else {
      attend(sleep);
      sleep = std::min(2 * sleep, longestSleep);
    }
  }
  toolbar_.say(StatusMessage, textOf(totals()));
}

Capture::Found Capture::takeOne() {
  std::size_t length = sizeof packet_;
  const kern_return_t result = packets_.takePacket(packet_, length);
  if (result != KERN_SUCCESS) {
    noteFailure(result);
    return Found::Nothing;
  }
  if (length == 0) {
    ++totals_.empty;
    return Found::Nothing;
  }
  deliver(length);
  return Found::Packet;
}

void Capture::deliver(std::size_t length) {
  if (!output_.write(packet_, length)) return;
  ++totals_.packets;
  totals_.bytes += length;
  if (length == sizeof packet_) ++totals_.full;
}

void Capture::noteFailure(kern_return_t result) {
  ++(result == kIOReturnNoSpace ? totals_.tooLong : totals_.failed);
  const std::string text =
      result == kIOReturnNoSpace
          ? counted(totals_.tooLong, "packets lost: too long for a reply")
          : counted(totals_.failed, "calls for a packet failed, the last with ") + hex(result);
  toolbar_.say(StatusMessage, text);
}

void Capture::attend(int milliseconds) {
  pollfd sources[] = {{.fd = output_.watch(), .events = 0, .revents = 0},
                      {.fd = toolbar_.fd(), .events = POLLIN, .revents = 0}};
  const int count = ::poll(sources, std::size(sources), milliseconds);
  // A wait that a signal cuts short is over; one that cannot be made would leave nobody time.
  if (count == -1 && errno != EINTR) raiseAt(KES_HERE, OsError(errno));
  if (count > 0) {
    if (sources[0].revents != 0) output_.noteEnd();
    for (const ControlMessage& message : toolbar_.read()) obey(message);
  }
  toolbar_.flush();
  if (trace_ && toolbar_.isThere()) showTrace();
}

void Capture::obey(const ControlMessage& message) {
  if (message.command != Set) return;
  Levels levels = levels_;
  std::uint16_t* const fields[] = {&levels.driver, &levels.ppp, &levels.oid};
  const auto level = parseLevel(message.payload);
  if (message.control >= std::size(fields) || !level) return;
  *fields[message.control] = *level;
  setLevels(levels);
}

// Packets are what matters: a driver that gives no trace, or no second connection, still gives those.
void Capture::setLevels(const Levels& levels) {
  levels_ = levels;
  std::string complaint;
  try {
    if (!trace_) trace_ = std::make_unique<Connection>(client::traceRole);
    if (const auto result = trace_->setLevels(levels); result != KERN_SUCCESS) complaint = hex(result);
  } catch (const DriverError& error) {
    complaint = error.what();
  }
  if (complaint.empty()) {
    const std::pair<Control, std::uint16_t> shown[] = {
        {DriverLevel, levels.driver}, {PppLevel, levels.ppp}, {OidLevel, levels.oid}};
    for (const auto& [control, level] : shown) toolbar_.show(control, Set, std::to_string(level));
  } else {
    warn("the debug levels were not set: " + complaint);
  }
  // Without a window for it the trace is left to who asks for it.
  if (!toolbar_.isThere()) trace_.reset();
}

void Capture::warn(const std::string& text) {
  if (toolbar_.isThere()) {
    toolbar_.say(WarningMessage, text);
  } else {
    std::fprintf(stderr, "kestrace-extcap: %s\n", text.c_str());
  }
}

void Capture::showTrace() {
  if (Clock::now() < nextTrace_) return;
  nextTrace_ = Clock::now() + tracePeriod;
  if (const std::string text = trace_->takeTrace(); !text.empty()) toolbar_.show(TraceLog, Add, text);
}

}  // namespace kes::extcap
