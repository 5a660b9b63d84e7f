#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <iterator>

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

struct Flag {
  std::uint64_t mac;
  tcflag_t host;
};
constexpr Flag inputFlags[] = {{0x1, IGNBRK},     {0x2, BRKINT},  {0x4, IGNPAR},  {0x8, PARMRK},
                               {0x10, INPCK},     {0x20, ISTRIP}, {0x40, INLCR},  {0x80, IGNCR},
                               {0x100, ICRNL},    {0x200, IXON},  {0x400, IXOFF}, {0x800, IXANY},
                               {0x2000, IMAXBEL}, {0x4000, IUTF8}};
constexpr Flag outputFlags[] = {{0x1, OPOST}, {0x2, ONLCR}, {0x10, OCRNL}, {0x20, ONOCR}, {0x40, ONLRET}};
constexpr Flag controlFlags[] = {{0x100, CS6},     {0x200, CS7},     {0x400, CSTOPB}, {0x800, CREAD},
                                 {0x1000, PARENB}, {0x2000, PARODD}, {0x4000, HUPCL}, {0x8000, CLOCAL}};
constexpr Flag localFlags[] = {{0x1, ECHOKE},   {0x2, ECHOE},    {0x4, ECHOK},       {0x8, ECHO},
                               {0x10, ECHONL},  {0x20, ECHOPRT}, {0x40, ECHOCTL},    {0x80, ISIG},
                               {0x100, ICANON}, {0x400, IEXTEN}, {0x400000, TOSTOP}, {0x80000000, NOFLSH}};
/// Where both keep a character, in the platform's order from 0; -1 for those that are unknown here.
constexpr int characters[20] = {VEOF,  VEOL, VEOL2,  VERASE, VWERASE, VKILL,    VREPRINT, -1,    VINTR, VQUIT,
                                VSUSP, -1,   VSTART, VSTOP,  VLNEXT,  VDISCARD, VMIN,     VTIME, -1,    -1};

template <std::size_t count>
std::uint64_t macFlags(tcflag_t host, const Flag (&flags)[count]) {
  std::uint64_t mac = 0;
  for (const Flag& flag : flags) {
    if ((host & flag.host) == flag.host) mac |= flag.mac;
  }
  return mac;
}
/// What this system alone has stays as it is.
template <std::size_t count>
tcflag_t hostFlags(tcflag_t before, std::uint64_t mac, const Flag (&flags)[count]) {
  tcflag_t host = before;
  for (const Flag& flag : flags) host &= ~flag.host;
  for (const Flag& flag : flags) {
    if ((mac & flag.mac) == flag.mac) host |= flag.host;
  }
  return host;
}

int getAttributes(int fd, MacTermios* mac) {
  termios host{};
  if (::tcgetattr(fd, &host) != 0) return -1;
  *mac = {macFlags(host.c_iflag, inputFlags),
          macFlags(host.c_oflag, outputFlags),
          macFlags(host.c_cflag, controlFlags),
          macFlags(host.c_lflag, localFlags),
          {},
          0,
          0};
  for (std::size_t i = 0; i < std::size(characters); ++i) {
    if (characters[i] >= 0) mac->characters[i] = host.c_cc[characters[i]];
  }
  return 0;
}

int setAttributes(int fd, int when, const MacTermios* mac) {
  termios host{};
  if (::tcgetattr(fd, &host) != 0) return -1;
  host.c_iflag = hostFlags(host.c_iflag, mac->input, inputFlags);
  host.c_oflag = hostFlags(host.c_oflag, mac->output, outputFlags);
  host.c_cflag = hostFlags(host.c_cflag, mac->control, controlFlags);
  host.c_lflag = hostFlags(host.c_lflag, mac->local, localFlags);
  for (std::size_t i = 0; i < std::size(characters); ++i) {
    if (characters[i] >= 0) host.c_cc[characters[i]] = mac->characters[i];
  }
  return ::tcsetattr(fd, when, &host);
}

int deviceControl(int fd, unsigned long request, MacList rest) {
  struct Request {
    unsigned long mac, host;
  };
  constexpr Request requests[] = {
      {0x40087468, TIOCGWINSZ}, {0x80087467, TIOCSWINSZ}, {0x20007461, TIOCSCTTY}};
  for (const Request& each : requests) {
    if (each.mac == (request & 0xFFFFFFFF)) return ::ioctl(fd, each.host, HostArguments(rest).next<void*>());
  }
  errno = EINVAL;
  return -1;
}

int openPseudoTerminal(int flags) {
  constexpr int macNoControl = 0x20000, macCloseOnExec = 0x1000000;
  return ::posix_openpt((flags & O_ACCMODE) | ((flags & macNoControl) != 0 ? O_NOCTTY : 0) |
                        ((flags & macCloseOnExec) != 0 ? O_CLOEXEC : 0));
}

const Call calls[] = {{"tcgetattr", getAttributes},
                      {"tcsetattr", setAttributes},
                      {"ioctl", variadic<deviceControl>},
                      {"posix_openpt", openPseudoTerminal},
                      {"grantpt", ::grantpt},
                      {"unlockpt", ::unlockpt},
                      {"ptsname", ::ptsname},
                      {"tcsetpgrp", ::tcsetpgrp}};

}  // namespace

std::span<const Call> terminalCalls() { return calls; }

}  // namespace loader
