#pragma once

#include <cstdint>
#include <ctime>

// The queue of events, with what is used of it: ends of processes, and events of one's own.

struct kevent {
  std::uintptr_t ident;
  std::int16_t filter;
  std::uint16_t flags;
  std::uint32_t fflags;
  std::intptr_t data;
  void* udata;
};

#define EV_SET(event, ident, filter, flags, fflags, data, udata) \
  (*(event) = {(ident), (filter), (flags), (fflags), (data), (udata)})

constexpr std::int16_t EVFILT_PROC = -5, EVFILT_USER = -10;
constexpr std::uint16_t EV_ADD = 0x1, EV_ONESHOT = 0x10;
constexpr std::uint32_t NOTE_EXIT = 0x80000000, NOTE_TRIGGER = 0x01000000;

int kqueue();
int kevent(int queue, const struct kevent* changes, int changeCount, struct kevent* events, int eventCount,
           const timespec* timeout);
