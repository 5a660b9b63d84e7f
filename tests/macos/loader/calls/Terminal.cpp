#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Calls.h"
#include "Variadic.h"

namespace loader {

namespace {

struct MacTermios {
  std::uint64_t input, output, control, local;
  std::uint8_t characters[20];
  std::uint64_t inputSpeed, outputSpeed;
};
static_assert(sizeof(MacTermios) == 72);

struct LocalFlag {
  std::uint64_t mac;
  tcflag_t host;
};
constexpr LocalFlag localFlags[] = {{0x8, ECHO}, {0x80, ISIG}, {0x100, ICANON}};
constexpr int macMinimum = 16, macTime = 17;

// Of a terminal's many settings those pass through that a program changes which reads single keys.
int getAttributes(int fd, MacTermios* mac) {
  termios host{};
  if (::tcgetattr(fd, &host) != 0) return -1;
  *mac = {};
  for (const LocalFlag& flag : localFlags) {
    if ((host.c_lflag & flag.host) != 0) mac->local |= flag.mac;
  }
  mac->characters[macMinimum] = host.c_cc[VMIN];
  mac->characters[macTime] = host.c_cc[VTIME];
  return 0;
}

int setAttributes(int fd, int when, const MacTermios* mac) {
  termios host{};
  if (::tcgetattr(fd, &host) != 0) return -1;
  for (const LocalFlag& flag : localFlags) {
    host.c_lflag = (mac->local & flag.mac) != 0 ? host.c_lflag | flag.host : host.c_lflag & ~flag.host;
  }
  host.c_cc[VMIN] = mac->characters[macMinimum];
  host.c_cc[VTIME] = mac->characters[macTime];
  return ::tcsetattr(fd, when, &host);
}

int deviceControl(int fd, unsigned long request, MacList rest) {
  constexpr unsigned long macGetWindowSize = 0x40087468;
  if (request == macGetWindowSize) return ::ioctl(fd, TIOCGWINSZ, HostArguments(rest).next<void*>());
  errno = EINVAL;
  return -1;
}

const Call calls[] = {
    {"tcgetattr", getAttributes}, {"tcsetattr", setAttributes}, {"ioctl", variadic<deviceControl>}};

}  // namespace

std::span<const Call> terminalCalls() { return calls; }

}  // namespace loader
