#include "kespal/signal/Names.h"

#include <csignal>
#include <cstring>

namespace kes::signal {

namespace {

const char* label(int signal) noexcept {
  struct Label {
    int signal;
    const char* text;
  };
  static constexpr Label labels[] = {
      {SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},
      {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"}, {SIGFPE, "SIGFPE"},   {SIGKILL, "SIGKILL"},
      {SIGBUS, "SIGBUS"},   {SIGSEGV, "SIGSEGV"}, {SIGSYS, "SIGSYS"},   {SIGPIPE, "SIGPIPE"},
      {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"}, {SIGURG, "SIGURG"},   {SIGSTOP, "SIGSTOP"},
      {SIGTSTP, "SIGTSTP"}, {SIGCONT, "SIGCONT"}, {SIGCHLD, "SIGCHLD"}, {SIGTTIN, "SIGTTIN"},
      {SIGTTOU, "SIGTTOU"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"}, {SIGVTALRM, "SIGVTALRM"},
      {SIGPROF, "SIGPROF"}, {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}};
  for (const Label& known : labels) {
    if (known.signal == signal) return known.text;
  }
  return nullptr;
}

}  // namespace

std::string signame(int signal) {
  const char* description = ::strsignal(signal);
  return description != nullptr ? description : "";
}

std::string siglabel(int signal) {
  const char* known = label(signal);
  return known != nullptr ? known : signame(signal);
}

}  // namespace kes::signal
