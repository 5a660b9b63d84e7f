#include "Ending.h"

#include <unistd.h>

#include <csignal>

namespace kes::extcap {

namespace {

constexpr unsigned patience = 1;  // seconds
constexpr int asking[] = {SIGINT, SIGTERM, SIGHUP};

volatile std::sig_atomic_t hasAsked = 0;

void noteRequest(int) {
  hasAsked = 1;
  ::alarm(patience);
}

void handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;  // without SA_RESTART, so that a wait ends
  sigemptyset(&action.sa_mask);
  ::sigaction(number, &action, nullptr);
}

/// Who started this program may have said so: nohup does, and a shell that starts it in the background.
bool isIgnored(int number) {
  struct sigaction action {};
  return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

}  // namespace

Ending::Ending() {
  hasAsked = 0;
  handle(SIGPIPE, SIG_IGN);
  for (const int number : asking) {
    if (!isIgnored(number)) handle(number, noteRequest);
  }
}

Ending::~Ending() {
  ::alarm(0);
  for (const int number : asking) {
    if (!isIgnored(number)) handle(number, SIG_DFL);
  }
}

bool Ending::isAskedFor() { return hasAsked != 0; }

}  // namespace kes::extcap
