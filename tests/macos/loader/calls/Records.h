#pragma once

#include <cstdint>

// Records of macOS that differ from this system's, as its 64-bit programs lay them out.
// tests/macos/LoaderTypes.cpp holds each against the platform's headers.
namespace loader::mac {

struct Flock {
  std::int64_t start, length;
  std::int32_t process;
  std::int16_t type, whence;
};

struct SignalInfo {
  std::int32_t signal, error, code, process;
  std::uint32_t user;
  std::int32_t status;
  void* address;
  void* value;
  std::int64_t band;
  std::uint64_t spares[7];
};

#pragma pack(push, 4)
struct IpcPermissions {
  std::uint32_t user, group, creator, creatorGroup;
  std::uint16_t mode, sequence;
  std::int32_t key;
};

struct SemaphoreState {
  IpcPermissions permissions;
  std::int32_t base;
  std::uint16_t count;
  std::int64_t operated;
  std::int32_t spare;
  std::int64_t changed;
  std::int32_t spares[5];
};

struct SegmentState {
  IpcPermissions permissions;
  std::uint64_t size;
  std::int32_t lastProcess, creatorProcess;
  std::uint16_t attached;
  std::int64_t attachedLast, detachedLast, changed;
  void* kernels;
};
#pragma pack(pop)

struct Seconds {
  std::int64_t seconds;
  std::int32_t microseconds;
};

/// An entry of the process table, with names for what is filled in here.
struct Process {
  Seconds start;
  std::uint64_t memory[2];
  std::int32_t flags;
  std::int8_t state;
  std::int32_t id;
  std::uint8_t schedule[199];
  char command[17];
  std::uint8_t rest[36];
  std::uint64_t entry[2];
  std::uint8_t lock[72];
  void* credentials;
  std::uint32_t realUser, savedUser, realGroup, savedGroup;
  std::uint8_t others[240];
};

}  // namespace loader::mac
