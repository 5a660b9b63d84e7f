#include "kesos/mappings.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

#include "ipc.h"
#include "paths.h"
#include "segments.h"
#include "sys/KeepErrno.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

namespace {

constexpr KesOsMmf closed{-1, -1, 0, nullptr, 0, 0};

/// Notes why the mapping failed, before anything else can change errno.
int failed(KesOsMmf& mapping) {
  mapping.error = errno;
  return 0;
}

// --- files

/// Appends zero bytes. They are written and not left as a hole: a full disk shows here, and not as a signal
/// when the memory is touched.
bool grow(int fd, off_t length, off_t wanted) {
  static constexpr std::array<char, 65536> zeros{};
  const off_t before = length;
  while (length < wanted) {
    const auto count = std::min<std::uintmax_t>(zeros.size(), static_cast<std::uintmax_t>(wanted - length));
    const ssize_t written = kes::sys::retry([=] { return ::write(fd, zeros.data(), count); });
    if (written <= 0) {
      if (written == 0) errno = ENOSPC;  // or it would go on for ever
      const kes::sys::KeepErrno whyNotWritten;
      static_cast<void>(::ftruncate(fd, before));  // as it was, as far as that is possible
      return false;
    }
    length += written;
  }
  return true;
}

/// Gives the file at least `size` bytes; the length it has then, or -1.
off_t fit(int fd, unsigned int size) {
  struct stat state {};
  if (::fstat(fd, &state) != 0) return -1;
  if (std::cmp_greater(state.st_size, std::numeric_limits<unsigned int>::max())) {
    errno = EOVERFLOW;  // the record's length has 32 bits
    return -1;
  }
  return grow(fd, state.st_size, size) ? std::max<off_t>(state.st_size, size) : -1;
}

int mapFile(KesOsMmf& mapping, unsigned int size, const char* name) {
  const bool missing = ::access(name, F_OK) != 0;
  kes::sys::Descriptor file(::open(name, O_RDWR | O_APPEND | O_CLOEXEC | (missing ? O_CREAT : 0), 0600));
  if (!file) return failed(mapping);
  mapping.created = missing ? 1 : 0;
  const off_t length = fit(file.get(), size);
  if (length < 0) return failed(mapping);
  void* address =
      ::mmap(nullptr, static_cast<std::size_t>(length), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (address == MAP_FAILED) return failed(mapping);
  mapping.fd = file.release();
  mapping.address = address;
  mapping.size = static_cast<unsigned int>(length);
  return 1;
}

int unmapFile(KesOsMmf& mapping) {
  const kes::sys::NoCancel untilBothAreGone;
  const bool fileClosed = ::close(mapping.fd) == 0;
  const bool unmapped = ::munmap(mapping.address, mapping.size) == 0;
  mapping = closed;
  return fileClosed && unmapped ? 1 : 0;
}

// --- segments

bool attach(KesOsMmf& mapping) {
  void* address = ::shmat(mapping.shmid, nullptr, 0);
  if (reinterpret_cast<std::intptr_t>(address) == -1) return false;
  mapping.address = address;
  return true;
}

/// Notes the size of the segment. One that was removed before it was attached is nobody else's any more.
bool measure(KesOsMmf& mapping) {
  shmid_ds state{};
  if (::shmctl(mapping.shmid, IPC_STAT, &state) != 0) return false;
  if (kes::os::isRemoved(state)) return kes::kesos::failWith(EIDRM) != 0;
  mapping.size = static_cast<unsigned int>(state.shm_segsz);
  return true;
}

/// Lets go of a segment that could not be taken into use. What fails on the way does not say why it could
/// not.
int abandonSegment(KesOsMmf& mapping, bool remove) {
  failed(mapping);
  if (mapping.address != nullptr) ::shmdt(std::exchange(mapping.address, nullptr));
  const int shmid = std::exchange(mapping.shmid, -1);
  if (remove) ::shmctl(shmid, IPC_RMID, nullptr);
  return kes::kesos::failWith(mapping.error);
}

int openSegment(KesOsMmf& mapping, key_t key) {
  mapping.shmid = ::shmget(key, 0, 0);
  if (mapping.shmid < 0) return failed(mapping);
  if (!attach(mapping)) return abandonSegment(mapping, true);
  return measure(mapping) ? 1 : abandonSegment(mapping, false);
}

int prepareSegment(KesOsMmf& mapping) {
  if (!kes::kesos::setSegmentOwner(mapping.shmid) || !attach(mapping) || !measure(mapping)) {
    return abandonSegment(mapping, true);
  }
  mapping.created = 1;
  return 1;
}

/// The segment that has the key, or is made with it, can be removed at any moment until it is attached.
int createSegment(KesOsMmf& mapping, unsigned int size, key_t key) {
  int result = 0;
  for (int tries = 0; tries < kes::kesos::mostTries; ++tries) {
    mapping = closed;
    mapping.shmid = ::shmget(key, size, ipc_default_mode | IPC_CREAT | IPC_EXCL);
    if (mapping.shmid < 0) failed(mapping);
    if (mapping.shmid < 0 && mapping.error != EEXIST) return 0;
    result = mapping.shmid < 0 ? openSegment(mapping, key) : prepareSegment(mapping);
    if (result != 0 || !kes::kesos::isGone(mapping.error)) break;
  }
  return result;
}

int detachUnknown(KesOsMmf& mapping) {
  if (mapping.address != nullptr) ::shmdt(mapping.address);
  mapping = closed;
  return 1;
}

int detach(KesOsMmf& mapping, const shmid_ds& state) {
  const KesOsMmf last = std::exchange(mapping, closed);
  if (state.shm_nattch < 2) ::shmctl(last.shmid, IPC_RMID, nullptr);
  const int result = ::shmdt(last.address) == 0 ? 1 : 0;
  // Two processes that detach at once both saw two attachments: nobody would remove the segment.
  shmid_ds now{};
  if (state.shm_nattch >= 2 && ::shmctl(last.shmid, IPC_STAT, &now) == 0 && now.shm_nattch == 0) {
    ::shmctl(last.shmid, IPC_RMID, nullptr);
  }
  return result;
}

}  // namespace

int KesOsMmfCreate(KesOsMmf* mapping, unsigned int size, const char* fileName, key_t key) {
  if (mapping == nullptr) return 0;
  *mapping = closed;
  return fileName != nullptr && *fileName != '\0' ? mapFile(*mapping, size, fileName)
                                                  : createSegment(*mapping, size, key);
}

int KesOsMmfOpen(KesOsMmf* mapping, unsigned long /*reserved*/, key_t key) {
  if (mapping == nullptr) return 0;
  *mapping = closed;
  return openSegment(*mapping, key);
}

int KesOsMmfClose(KesOsMmf* mapping) {
  if (mapping == nullptr) return 0;
  if (mapping->fd >= 0) return unmapFile(*mapping);
  shmid_ds state{};
  return ::shmctl(mapping->shmid, IPC_STAT, &state) == 0 ? detach(*mapping, state) : detachUnknown(*mapping);
}

int KesOsMmfFlush(KesOsMmf* /*mapping*/, void* address, size_t length) {
  const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(address) % page;
  return ::msync(static_cast<char*>(address) - offset, length + offset, MS_SYNC) == 0 ? 1 : 0;
}
