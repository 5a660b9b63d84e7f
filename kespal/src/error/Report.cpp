#include "error/Report.h"

#include <pthread.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes {

namespace {

/// Threads report one after the other: the buffer of std::cerr need not be one that several may use at once.
/// Not so what is reported from within that buffer, or from a handler of a signal.
class Turn {
 public:
  Turn() noexcept : waited_(!m_mine && ::pthread_mutex_lock(&m_lock) == 0) { m_mine = m_mine || waited_; }
  ~Turn() {
    if (!waited_) return;
    m_mine = false;
    ::pthread_mutex_unlock(&m_lock);
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  static ::pthread_mutex_t m_lock;
  static thread_local bool m_mine;
  static const int m_fork_handler;  ///< what the system said to it

  const bool waited_;
};

constinit ::pthread_mutex_t Turn::m_lock = PTHREAD_MUTEX_INITIALIZER;
constinit thread_local bool Turn::m_mine = false;
// A forked child has the lock of a thread that stayed behind.
const int Turn::m_fork_handler =
    ::pthread_atfork(nullptr, nullptr, [] { m_lock = PTHREAD_MUTEX_INITIALIZER; });

/// Whoever has taken std::cerr's buffer away, or one that refuses, leaves the descriptor.
void writeRaw(std::string_view text) noexcept {
  while (!text.empty()) {
    const ssize_t written = sys::retry([text] { return ::write(STDERR_FILENO, text.data(), text.size()); });
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

/// Past the stream itself, whose state or exception mask may forbid output. Gives what its buffer took.
std::size_t writeToStream(std::string_view text) noexcept {
  try {
    if (std::ostream* tied = std::cerr.tie()) tied->flush();
  } catch (...) {  // what is tied to it is not what is to be said
  }
  std::size_t written = 0;
  try {
    if (std::streambuf* buffer = std::cerr.rdbuf()) {
      written =
          static_cast<std::size_t>(buffer->sputn(text.data(), static_cast<std::streamsize>(text.size())));
      buffer->pubsync();
    }
  } catch (...) {  // what it did not take goes another way
  }
  return written;
}

void write(std::string_view text) noexcept { writeRaw(text.substr(writeToStream(text))); }

/// All pieces of both lists as one text. Throws std::bad_alloc.
std::string joined(Pieces first, Pieces second) {
  std::string text;
  for (const Pieces& pieces : {first, second}) {
    for (std::string_view piece : pieces) text += piece;
  }
  return text;
}

void writeAll(Pieces headline, Pieces rest) noexcept {
  const sys::NoCancel untilWritten;
  const Turn mine;
  try {
    write(joined(headline, rest));
  } catch (const std::bad_alloc&) {
    for (const Pieces& pieces : {headline, rest}) {
      for (std::string_view piece : pieces) write(piece);
    }
  }
}

/// `compose` makes the text behind the headline, and may throw for want of memory.
template <typename Compose>
void reportComposed(Pieces headline, Compose compose, std::string_view end) noexcept {
  const sys::NoCancel untilWritten;
  try {
    writeAll(headline, {compose(), end});
  } catch (...) {
    writeAll(headline, {noMemoryLeft, "\n"});
  }
}

}  // namespace

void report(Pieces text) noexcept { writeAll(text, {}); }

void reportStack(Pieces headline, const Exception& error, std::string_view end) noexcept {
  reportComposed(
      headline, [&error] { return error.exStack(); }, end);
}

void reportWhat(Pieces headline, const Exception& error) noexcept {
  // Not what(): being noexcept, that one would end the program for want of memory.
  reportComposed(
      headline, [&error] { return error.Exception::text(); }, "\n");
}

void reportWhat(Pieces headline, const std::exception& error) noexcept {
  const char* what = error.what();
  writeAll(headline, {what != nullptr ? what : "", "\n"});
}

}  // namespace kes
