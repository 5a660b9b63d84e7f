#pragma once

#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>

#include "kesos/time.h"
#include "paths.h"
#include "semaphores.h"
#include "usage_table.h"

namespace kes::kesos {

/// What stands behind the handle of a mutex or event: a POSIX object of this process or a semaphore.
enum class Kind : std::int32_t { local = 0, keyed = 1 };

/// Whether the handle is one, and neither null nor the pointer with all bits set.
template <typename Handle>
bool isHandle(const Handle* handle) {
  return handle != nullptr && reinterpret_cast<std::uintptr_t>(handle) != UINTPTR_MAX;
}

/// 0 and a null handle, where a handle was wanted.
template <typename Handle>
int noHandle(Handle** out) {
  if (out != nullptr) *out = nullptr;
  return 0;
}

/// Stores a new handle for what `init` made of it; 1, or 0 and a null handle.
template <typename Handle, typename Init>
int makeHandle(Handle** out, Init init) {
  if (out == nullptr) return 0;
  *out = nullptr;
  std::unique_ptr<Handle> handle(new (std::nothrow) Handle{});
  if (handle == nullptr) return failWith(ENOMEM);
  if (!init(*handle)) return 0;
  handle->forks = forkCount();
  *out = handle.release();
  return 1;
}

/// The same for a new object: with key 0 a local one, which `initLocal` makes, else one of the key, which may
/// be there already.
template <typename Handle, typename Init>
int createHandle(Handle** out, unsigned int key, int initialValue, char tag, Init initLocal, bool& isNew) {
  return makeHandle(out, [=, &isNew](Handle& handle) {
    handle.kind = key != 0 ? Kind::keyed : Kind::local;
    isNew = true;
    if (key == 0) return initLocal(handle);
    return createSemaphore(handle.semid, static_cast<key_t>(key), initialValue, tag, isNew) != 0;
  });
}

template <typename Handle, typename Init>
int createHandle(Handle** out, unsigned int key, int initialValue, char tag, Init initLocal) {
  bool isNew = false;
  return createHandle(out, key, initialValue, tag, initLocal, isNew);
}

/// The same for what has the key already.
template <typename Handle>
int openHandle(Handle** out, unsigned int key, char tag) {
  return makeHandle(out, [=](Handle& handle) {
    handle.kind = Kind::keyed;
    return KesOsOpen(&handle.semid, static_cast<key_t>(key), tag) != 0;
  });
}

/// Gives the object back and frees the handle. A semaphore that came with a fork is the parent's to give
/// back.
template <typename Handle, typename Destroy>
int closeHandle(Handle* handle, Destroy destroyLocal) {
  if (!isHandle(handle)) return 0;
  const bool closed = handle->kind == Kind::local
                          ? destroyLocal(*handle)
                          : handle->forks != forkCount() || KesOsClose(handle->semid) != 0;
  delete handle;
  return closed ? 1 : 0;
}

/// Repeats the destruction of a POSIX object for as long as it is in use.
template <typename Destroy>
bool destroyWhenFree(Destroy destroy) {
  int errnum = destroy();
  for (; errnum == EBUSY; errnum = destroy()) KesOsSleep(1);
  return errnum == 0;
}

/// The same of a mutex. The system calls it free while its holder is on the last steps out of the unlocking;
/// only who can lock it knows that the holder has done with it.
inline bool destroyWhenFree(pthread_mutex_t& mutex) {
  return destroyWhenFree([&mutex] {
    const int held = ::pthread_mutex_trylock(&mutex);
    if (held != 0) return held;
    ::pthread_mutex_unlock(&mutex);
    return ::pthread_mutex_destroy(&mutex);
  });
}

}  // namespace kes::kesos
