#include "os/posix/proc/StartNote.h"

#include <sys/mman.h>

#include <new>
#include <ostream>

#include "kespal/error/OsError.h"
#include "sys/KeepErrno.h"

namespace kes::proc {

using Step = StartFailure::Step;

StartNote::~StartNote() {
  const sys::KeepErrno untilGone;
  if (word_ != nullptr) ::munmap(word_, sizeof(Word));
}

/// The word is written before the fork, so that the memory is there when the child needs it.
bool StartNote::open() noexcept {
  void* const memory =
      ::mmap(nullptr, sizeof(Word), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  word_ = new (memory) Word(0);
  return true;
}

void StartNote::write(Step step, int errnum) const noexcept {
  if (word_ == nullptr) return;
  *word_ = std::uint64_t{static_cast<std::uint32_t>(step)} << 32 | static_cast<std::uint32_t>(errnum);
}

std::optional<StartFailure> StartNote::read() const noexcept {
  const std::uint64_t noted = word_ != nullptr ? word_->load() : 0;
  if (noted == 0) return std::nullopt;
  return StartFailure{static_cast<Step>(noted >> 32), static_cast<int>(noted & 0xFFFFFFFF)};
}

namespace {

const char* nameOf(Step step) noexcept {
  switch (step) {
    case Step::ProcessGroup:
      return "process group";
    case Step::SignalMask:
      return "signal mask";
    case Step::Redirection:
      return "redirection";
    case Step::Groups:
      return "supplementary groups";
    case Step::GroupId:
      return "group id";
    case Step::UserId:
      return "user id";
    case Step::WayBack:
      return "way back to the former user";
    case Step::Directory:
      return "working directory";
    case Step::Exec:
      break;
  }
  return "exec";
}

}  // namespace

std::string StartFailure::text() const { return std::string(nameOf(step)) + ": " + OsError(errnum).text(); }

std::ostream& operator<<(std::ostream& stream, const StartFailure& failure) {
  return stream << failure.text();
}

}  // namespace kes::proc
