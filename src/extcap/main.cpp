#include <cstdio>
#include <exception>

#include "Capture.h"
#include "Ending.h"
#include "Installation.h"
#include "Menu.h"
#include "Request.h"
#include "kespal/error/Exception.h"
#include "sys/AtEnd.h"

using namespace kes::extcap;

namespace {

constexpr int exitUsage = 2;

int say(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int fail(const std::string& text) {
  std::fprintf(stderr, "kestrace-extcap: %s\n", text.c_str());
  return 1;
}

/// The analyser takes every word on standard error for trouble, and shows it in a window.
void tell(const Totals& totals, bool always) {
  if (always || tellsOfLosses(totals)) fail(textOf(totals));
}

/// What `action` returns, or what is said of the error that it ends with.
template <typename Action>
int reporting(Action action) {
  try {
    return action();
  } catch (const UsageError& error) {
    fail(error.what());
    std::fputs(usage, stderr);
    return exitUsage;
  } catch (const kes::Exception& error) {
    return fail(error.text());
  } catch (const std::exception& error) {
    return fail(error.what());
  }
}

// All is said before the pipe is closed: at its end the analyser looks for words, and no later.
int capture(const Request& request) {
  Output output(request.fifo);
  return reporting([&] {
    const Ending untilDone;
    Capture capture(request, output);
    const kes::sys::AtEnd telling([&] { tell(capture.totals(), request.totals); });
    capture.run();
    return 0;
  });
}

int answer(const Request& request) {
  switch (request.action) {
    case Action::Help:
      return say(usage);
    case Action::Version:
      return say("kestrace-extcap " KES_VERSION "\n");
    case Action::Interfaces:
      return say(interfaces());
    case Action::LinkTypes:
      return say(linkTypes());
    case Action::Options:
      return say(options());
    case Action::CheckFilter:
      return say(std::string(noFilters) + '\n');
    case Action::Capture:
      return capture(request);
    case Action::InstallForUser:
      return say(installForUser());
  }
  return exitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  return reporting([&] { return answer(parseRequest({argv + 1, argv + argc})); });
}
