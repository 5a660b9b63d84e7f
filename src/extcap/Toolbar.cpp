#include "Toolbar.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "sys/Retry.h"

namespace kes::extcap {

namespace {

constexpr char mark = 'T';
constexpr std::size_t headSize = 6;   // mark, three bytes of length, control, command
constexpr std::size_t lengthEnd = 4;  // the length counts what is behind it
constexpr std::size_t longestPayload = 32767;
constexpr std::size_t mostUnsent = 1 << 20;
constexpr unsigned char noControl = 255;

std::size_t byteAt(const std::string& bytes, std::size_t at) { return static_cast<unsigned char>(bytes[at]); }

/// The size of the message that begins at `at`.
std::size_t sizeOf(const std::string& bytes, std::size_t at = 0) {
  return lengthEnd + (byteAt(bytes, at + 1) << 16 | byteAt(bytes, at + 2) << 8 | byteAt(bytes, at + 3));
}

/// Whether a message may begin at `at`, behind which there may be no more yet than a part of its head.
bool isBeginning(const std::string& bytes, std::size_t at) {
  const std::size_t size = bytes.size() - at < headSize ? headSize : sizeOf(bytes, at);
  return size >= headSize && size <= headSize + longestPayload;
}

/// Drops all up to where a message may begin.
void dropWhatIsNone(std::string& bytes) {
  std::size_t begin = 0;
  while ((begin = std::min(bytes.find(mark, begin), bytes.size())) < bytes.size() &&
         !isBeginning(bytes, begin)) {
    ++begin;
  }
  bytes.erase(0, begin);
}

}  // namespace

std::string encode(const ControlMessage& message) {
  const std::string payload = message.payload.substr(0, longestPayload);
  const std::size_t length = payload.size() + headSize - lengthEnd;
  std::string bytes{mark};
  for (const int shift : {16, 8, 0}) bytes += static_cast<char>(length >> shift & 0xFF);
  bytes += static_cast<char>(message.control);
  bytes += static_cast<char>(message.command);
  return bytes + payload;
}

std::optional<ControlMessage> takeMessage(std::string& bytes) {
  dropWhatIsNone(bytes);
  if (bytes.size() < headSize || bytes.size() < sizeOf(bytes)) return std::nullopt;
  const std::size_t size = sizeOf(bytes);
  ControlMessage message{static_cast<unsigned char>(bytes[4]), static_cast<unsigned char>(bytes[5]),
                         bytes.substr(headSize, size - headSize)};
  bytes.erase(0, size);
  return message;
}

// Open for both, the pipe to us never ends: between two writers, or before the first, nothing is to be read.
Toolbar::Toolbar(const std::string& in, const std::string& out) : outPath_(out) {
  if (!in.empty()) in_.reset(::open(in.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
}

std::vector<ControlMessage> Toolbar::read() {
  char chunk[4096];
  ssize_t got = 0;
  while (in_ && (got = sys::retry([&] { return ::read(in_.get(), chunk, sizeof chunk); })) > 0) {
    received_.append(chunk, static_cast<std::size_t>(got));
  }
  std::vector<ControlMessage> messages;
  while (auto message = takeMessage(received_)) messages.push_back(std::move(*message));
  return messages;
}

void Toolbar::show(unsigned char control, Command command, const std::string& text) {
  if (!isThere()) return;
  const std::string bytes = encode({control, command, text});
  if (unsent_.size() + bytes.size() <= mostUnsent) unsent_ += bytes;
  flush();
}

void Toolbar::say(Command command, const std::string& text) { show(noControl, command, text); }

void Toolbar::flush() {
  if (unsent_.empty()) return;
  // The window opens its end when it is ready, which may be later.
  if (!out_) out_.reset(::open(outPath_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
  if (!out_) return;
  const ssize_t sent = sys::retry([this] { return ::write(out_.get(), unsent_.data(), unsent_.size()); });
  if (sent > 0) unsent_.erase(0, static_cast<std::size_t>(sent));
}

}  // namespace kes::extcap
