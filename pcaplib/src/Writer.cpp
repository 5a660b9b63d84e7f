#include "pcaplib/Writer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <span>
#include <utility>

#include "Blocks.h"
#include "Transfer.h"
#include "kespal/NoCopy.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace kes::pcap {

namespace {

timespec now() {
  timespec time{};
  check(KES_HERE, ::clock_gettime(CLOCK_REALTIME, &time));
  return time;
}

}  // namespace

class Writer::State : NoCopy {
 public:
  State(const char* path, const Options& options) : format_(options.format) {
    if (path == nullptr) raiseAt(KES_HERE, FsError(path, EFAULT));
    path_ = path;
    if (!isRight(options)) fail(KES_HERE, EINVAL);
    start_ = startOf(options);
    fd_.reset(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666));
    struct stat status {};
    if (!fd_ || ::fstat(fd_.get(), &status) != 0) fail(KES_HERE, errno);
    isFile_ = S_ISREG(status.st_mode);
    begin();
  }

  const Totals& totals() const { return totals_; }

  int write(const Packet& packet) {
    const timespec time = packet.time != nullptr ? *packet.time : now();
    const std::uint32_t length = std::min(packet.length, longest);
    int errnum = EINVAL;
    if (isRight(packet, time, format_)) {
      const Frame frame = frameOf(packet, length, time, format_);
      iovec pieces[] = {pieceOf(frame.before.data(), frame.before.size()), pieceOf(packet.data, length),
                        pieceOf(frame.behind.data(), frame.behind.size())};
      errnum = append(pieces);
    }
    ++(errnum == 0 ? totals_.written : totals_.lost);
    if (errnum == 0) totals_.bytes += length;
    return errnum;
  }

  void reset() {
    if (!fd_) fail(KES_HERE, EBADF);
    if (!isFile_) fail(KES_HERE, EINVAL);
    {
      const HeldSignals untilItIsEmpty;
      if (sys::retry([this] { return ::ftruncate(fd_.get(), 0); }) != 0) fail(KES_HERE, errno);
    }
    torn_ = 0;
    begin();
  }

  void close() {
    if (!fd_) return;
    const sys::NoCancel untilClosed;
    if (::close(fd_.release()) != 0) fail(KES_HERE, errno);
  }

 private:
  [[noreturn, gnu::always_inline]] inline void fail(const Site& site, int errnum) const {
    raiseAt(site, FsError(path_, errnum));
  }

  void begin() {
    iovec pieces[] = {pieceOf(start_.data(), start_.size())};
    if (const int errnum = append(pieces); errnum != 0) {
      torn_ = errnum;  // packets without a beginning are no capture
      fail(KES_HERE, errnum);
    }
    totals_ = {};
  }

  /// 0 or the errno that nothing is written for.
  int append(std::span<iovec> pieces) {
    if (!fd_) return EBADF;
    if (torn_ != 0) return torn_;
    std::optional<HeldSignals> untilWholeOrBack;
    if (isFile_) untilWholeOrBack.emplace();
    std::size_t written = 0;
    sys::AtEnd noting([&] {
      if (written != 0) torn_ = ECANCELED;
    });
    const int errnum = writeAll(pieces, written);
    noting.dismiss();
    // What is torn and stays so would make every later record unreadable.
    if (errnum != 0 && written != 0 && !(isFile_ && takeBack(fd_.get(), written))) torn_ = errnum;
    return errnum;
  }

  int writeAll(std::span<iovec> pieces, std::size_t& written) const {
    while (!pieces.empty()) {
      const ssize_t size = writeOnce(fd_.get(), pieces);
      if (size == -1) return errno;
      written += static_cast<std::size_t>(size);
      if (size == 0 && pieces.front().iov_len != 0) return EIO;  // it would be so for ever
      pieces = behind(pieces, static_cast<std::size_t>(size));
    }
    return 0;
  }

  Format format_;
  std::string path_;   // for errors
  std::string start_;  // what every capture in the file begins with
  sys::Descriptor fd_;
  bool isFile_ = false;
  int torn_ = 0;  ///< the errno of what is there in part for good, or of a beginning that is missing
  Totals totals_;
};

Writer::Writer(const char* path, const Options& options) : state_(std::make_unique<State>(path, options)) {}
Writer::~Writer() = default;
Writer::Writer(Writer&& other) noexcept = default;
Writer& Writer::operator=(Writer&& other) noexcept = default;

int Writer::write(const Packet& packet) { return state_->write(packet); }
const Writer::Totals& Writer::totals() const noexcept { return state_->totals(); }
void Writer::reset() { state_->reset(); }
void Writer::close() { state_->close(); }

}  // namespace kes::pcap
