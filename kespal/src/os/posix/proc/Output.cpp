#include "kespal/proc/Output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <iterator>
#include <limits>
#include <utility>

#include "kespal/error/OsError.h"
#include "kespal/fs/Pipe.h"
#include "kespal/proc/Child.h"
#include "kespal/time/Clock.h"
#include "signal/NoWriteSignals.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::proc {

namespace {

using fs::Pipe;
using time::Milliseconds;
using time::MonotonicClock;

constexpr std::size_t pieceSize = std::size_t{16} << 10;
/// How much is taken of an output that somebody still writes to, when nobody waits for its end.
constexpr int lastPieces = 64;
/// How often a program that was told to end is asked whether it has: its output may be held by others.
constexpr Milliseconds interval(20);

/// How long it is until then.
Milliseconds until(const MonotonicClock& moment) { return time::boundedWait(moment - MonotonicClock()); }

/// Both ends of a pipe, of which a program gets one as a stream.
struct Ends {
  sys::Descriptor ours, its;

  Ends() = default;
  explicit Ends(Pipe::End oursIs) {
    const Pipe pipe = Pipe::make(oursIs);
    ours.reset(pipe.readEnd);
    its.reset(pipe.writeEnd);
    if (oursIs == Pipe::WriteEnd) std::swap(ours, its);
    avoidStreams();
  }

 private:
  /// A process without standard streams is given their numbers, and the program's would be put there, one
  /// over the other.
  void avoidStreams() {
    if (its.get() > STDERR_FILENO) return;
    its.reset(check(KES_HERE, ::fcntl(its.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1)));
  }
};

/// What comes out of a program by one stream.
class Outlet {
 public:
  Outlet(sys::Descriptor end, std::size_t most, std::string& text, bool& truncated)
      : end_(std::move(end)), most_(most), text_(text), truncated_(truncated) {}

  int fd() const noexcept { return end_.get(); }
  bool isOpen() const noexcept { return static_cast<bool>(end_); }

  /// Takes one piece of what is there. False when there is nothing, or never will be.
  bool take() {
    std::array<char, pieceSize> piece;
    const ssize_t count = sys::retry([&] { return ::read(end_.get(), piece.data(), piece.size()); });
    if (count == -1 && errno == EAGAIN) return false;
    if (check(KES_HERE, count) == 0) {
      end_.reset();
      return false;
    }
    keep({piece.data(), static_cast<std::size_t>(count)});
    return true;
  }

 private:
  void keep(std::string_view piece) {
    const std::string_view kept = piece.substr(0, most_ - text_.size());
    truncated_ = truncated_ || kept.size() != piece.size();
    text_.append(kept);
  }

  sys::Descriptor end_;
  std::size_t most_;
  std::string& text_;
  bool& truncated_;
};

/// What goes into a program.
class Inlet {
 public:
  Inlet(sys::Descriptor end, std::string_view text) : end_(std::move(end)), rest_(text) { closeWhenDone(); }

  int fd() const noexcept { return end_.get(); }
  bool isOpen() const noexcept { return static_cast<bool>(end_); }

  /// Gives what there is room for. A program need not read it.
  void give() {
    const signal::NoWriteSignals whileGiving;
    const ssize_t count = sys::retry([this] { return ::write(end_.get(), rest_.data(), rest_.size()); });
    if (count == -1 && errno == EAGAIN) return;
    if (count == -1 && errno == EPIPE) {
      whileGiving.take();
      return end_.reset();
    }
    rest_.remove_prefix(static_cast<std::size_t>(check(KES_HERE, count)));
    closeWhenDone();
  }

 private:
  void closeWhenDone() noexcept {
    if (rest_.empty()) end_.reset();
  }

  sys::Descriptor end_;
  std::string_view rest_;
};

/// What goes into a program that runs, and what comes out.
class Exchange {
 public:
  Exchange(Inlet in, Outlet out, Outlet err)
      : in_(std::move(in)), out_(std::move(out)), err_(std::move(err)) {}

  /// Until all of it has ended; false when the moment comes first.
  bool goOnUntil(const MonotonicClock& end) {
    while (in_.isOpen() || out_.isOpen() || err_.isOpen()) {
      const Milliseconds left = until(end);
      if (left == Milliseconds::zero()) return false;
      step(left);
    }
    return true;
  }

  /// Takes along what is there, and waits for nothing.
  void finish() {
    for (Outlet* outlet : {&out_, &err_}) {
      for (int left = lastPieces; left > 0 && outlet->isOpen() && outlet->take(); --left) {
      }
    }
  }

 private:
  /// Whatever can be done first, and what else can be by then.
  void step(Milliseconds limit) {
    ::pollfd watched[] = {{in_.fd(), POLLOUT, 0}, {out_.fd(), POLLIN, 0}, {err_.fd(), POLLIN, 0}};
    constexpr Milliseconds longest(std::numeric_limits<int>::max());
    const int count = ::poll(watched, std::size(watched), static_cast<int>(std::min(limit, longest).count()));
    if (count == -1 && errno == EINTR) return;
    check(KES_HERE, count);
    if (watched[0].revents != 0) in_.give();
    if (watched[1].revents != 0) out_.take();
    if (watched[2].revents != 0) err_.take();
  }

  Inlet in_;
  Outlet out_, err_;
};

/// Tells a program to end, and takes along what it writes meanwhile.
Child::ExitState stop(Child& child, Exchange& exchange, Milliseconds grace) {
  const auto end = MonotonicClock() + time::boundedWait(grace);
  Child::ExitState state{0, false};
  try {
    child.term();
  } catch (const NoSuchProcessError&) {
    // It ended in the same moment.
  }
  while (!state.finished && MonotonicClock() < end) {
    const bool isOver = exchange.goOnUntil(std::min(end, MonotonicClock() + interval));
    state = child.waitFor(isOver ? until(end) : Milliseconds::zero());
  }
  if (state.finished) return state;
  try {
    child.kill();
  } catch (const NoSuchProcessError&) {
    state = child.waitFor(Milliseconds::zero());
    if (!state.finished) throw;  // somebody else has reaped it
    return state;
  }
  return child.wait();
}

/// For when nobody will ask for it any more.
void endAtOnce(Child& child) {
  const sys::NoCancel untilEnded;
  try {
    child.terminate(Milliseconds::zero());
  } catch (const std::exception&) {
    // It is another user's, or was waited for.
  }
}

}  // namespace

Output captureOutput(Child& child, const OutputOptions& options) {
  Output result;
  const auto end = MonotonicClock() + time::boundedWait(options.limit);
  Ends in(Pipe::WriteEnd), out(Pipe::ReadEnd), err;
  if (!options.joined) err = Ends(Pipe::ReadEnd);
  child.createOver(in.its.get(), out.its.get(), (options.joined ? out : err).its.get());
  sys::AtEnd ending([&child] { endAtOnce(child); });
  for (Ends* ends : {&in, &out, &err}) ends->its.reset();
  Exchange exchange(Inlet(std::move(in.ours), options.input),
                    Outlet(std::move(out.ours), options.most, result.out, result.truncated),
                    Outlet(std::move(err.ours), options.most, result.err, result.truncated));

  Child::ExitState state{0, false};
  if (exchange.goOnUntil(end)) state = child.waitFor(until(end));
  result.timedOut = !state.finished;
  if (result.timedOut) {
    state = stop(child, exchange, options.grace);
    exchange.finish();
  }
  ending.dismiss();
  result.status = ExitStatus(state.status);
  return result;
}

}  // namespace kes::proc
