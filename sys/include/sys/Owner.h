#pragma once

#include <dirent.h>
#include <glob.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "sys/KeepErrno.h"
#include "sys/NoCancel.h"

namespace kes::sys {

/// Owns one thing of the system and gives it back at its end. The trait says what the thing is (Value), which
/// value stands for none of it (none), and how it is given back (free, which must leave no error behind and
/// is never called for none). Movable, not copyable.
template <typename Trait>
class Owner {
 public:
  using Value = typename Trait::Value;

  Owner() = default;
  explicit Owner(Value value) noexcept : value_(value) {}
  Owner(Owner&& other) noexcept : value_(other.release()) {}
  Owner& operator=(Owner&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~Owner() { reset(); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;

  Value get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != Trait::none; }

  /// Gives the thing up to the caller.
  Value release() noexcept { return std::exchange(value_, Trait::none); }
  /// Takes another thing in place of the one it has, which is given back.
  void reset(Value value = Trait::none) noexcept {
    const Value before = std::exchange(value_, value);
    if (before != Trait::none && before != value) Trait::free(before);
  }

 private:
  Value value_ = Trait::none;
};

/// A file descriptor. It is gone whatever close() answers, after EINTR too; who must know the answer calls
/// close() on what release() gives.
struct DescriptorTrait {
  using Value = int;
  static constexpr int none = -1;
  static void free(int fd) noexcept {
    const NoCancel untilClosed;
    const KeepErrno whyClosed;
    ::close(fd);
  }
};
using Descriptor = Owner<DescriptorTrait>;

/// An open directory.
struct DirStreamTrait {
  using Value = ::DIR*;
  static constexpr ::DIR* none = nullptr;
  static void free(::DIR* dir) noexcept {
    const NoCancel untilClosed;
    const KeepErrno whyClosed;
    ::closedir(dir);
  }
};
using DirStream = Owner<DirStreamTrait>;

/// What a function of the C library gave for the caller to free().
template <typename Content>
struct MallocedTrait {
  using Value = Content*;
  static constexpr Content* none = nullptr;
  static void free(Content* content) noexcept { std::free(content); }
};
template <typename Content>
using Malloced = Owner<MallocedTrait<Content>>;
using MallocedText = Malloced<char>;

/// The list of matches that glob() filled in; the record is the caller's.
struct GlobTrait {
  using Value = ::glob_t*;
  static constexpr ::glob_t* none = nullptr;
  static void free(::glob_t* matches) noexcept { ::globfree(matches); }
};
using GlobMatches = Owner<GlobTrait>;

}  // namespace kes::sys
