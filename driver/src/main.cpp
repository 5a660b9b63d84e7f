#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "LiveCapture.h"
#include "Options.h"
#include "Replay.h"
#include "ReplayPump.h"
#include "Server.h"
#include "TraceSource.h"

using namespace kes::driver;

namespace {

constexpr int exitUsage = 2;

Script readScript(const Options& options) {
  if (!options.script) return {};
  std::ifstream file(*options.script);
  if (!file) throw std::runtime_error("cannot read " + *options.script);
  return parseScript({std::istreambuf_iterator<char>(file), {}});
}

/// Some signals, as something to read. They are blocked.
kes::sys::Descriptor signalsToRead(std::initializer_list<int> numbers) {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : numbers) sigaddset(&set, number);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  kes::sys::Descriptor signals(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals) throw std::system_error(errno, std::generic_category(), "signalfd");
  return signals;
}

/// The signals that end the program. SIGPIPE is ignored: a reader of our output that goes away is no reason
/// to leave the socket behind.
kes::sys::Descriptor watchEnding(EventLoop& loop) {
  ::signal(SIGPIPE, SIG_IGN);
  kes::sys::Descriptor signals = signalsToRead({SIGINT, SIGTERM, SIGHUP});
  loop.watch(signals.get(), [&loop] { loop.stop(); });
  return signals;
}

/// The signal that asks for totals while the program runs.
kes::sys::Descriptor watchQuestions(EventLoop& loop, std::function<void()> answer) {
  kes::sys::Descriptor signals = signalsToRead({SIGUSR1});
  loop.watch(signals.get(), [fd = signals.get(), answer = std::move(answer)] {
    signalfd_siginfo asked;
    if (::read(fd, &asked, sizeof asked) > 0) answer();
  });
  return signals;
}

// One connection is one descriptor, and there may be many.
void allowManyDescriptors() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// Live traffic is for its own user alone; a replay is for everybody.
mode_t socketMode(const Options& options) { return options.live ? 0600 : 0666; }

/// Where the packets come from, if from anywhere.
class Traffic {
 public:
  Traffic(const Options& options, EventLoop& loop, Driver& driver) : replay_(options.replays, options.loop) {
    if (options.live) live_.emplace(*options.live, loop, driver);
    if (options.rate) {
      pump_.emplace(loop, driver, replay_, ReplayPump::atRate(*options.rate));
    } else if (options.pace) {
      pump_.emplace(loop, driver, replay_, ReplayPump::asCaptured());
    } else {
      driver.fetchFrom(replay_);
    }
  }

  void announce(std::ostream& out) const { replay_.printShortened(out); }
  void printTotals(std::ostream& out) const {
    if (live_) live_->printTotals(out);
  }

 private:
  Replay replay_;
  std::optional<ReplayPump> pump_;
  std::optional<LiveCapture> live_;
};

void announce(const Traffic& traffic, const Listener& listener) {
  std::cout << "kesdriver is a stand-in for the VPN kernel driver, for development and tests. It is not the "
               "driver.\n";
  traffic.announce(std::cout);
  std::cout << "serving " << driverClass << " at " << listener.path() << std::endl;
}

/// The stream of the JSON journal; null without one. What is opened is left to the end of the process.
std::FILE* openJournal(const Options& options) {
  if (!options.journal) return nullptr;
  if (*options.journal == "-") return stdout;
  std::FILE* const file = std::fopen(options.journal->c_str(), "we");
  if (file == nullptr) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + *options.journal);
  }
  return file;
}

void printTotals(Driver& driver, const Traffic& traffic) {
  driver.printTotals(std::cout);
  traffic.printTotals(std::cout);
  std::cout.flush();
}

int run(const Options& options) {
  Script script = readScript(options);
  EventLoop loop;
  Driver driver({.oversize = options.oversize, .ownEvents = !options.trace});
  const Traffic traffic(options, loop, driver);
  std::optional<TraceSource> trace;
  if (options.trace) trace.emplace(*options.trace, loop, driver);
  const kes::sys::Descriptor ending = watchEnding(loop);
  const kes::sys::Descriptor questions = watchQuestions(loop, [&] {
    printTotals(driver, traffic);
    driver.traceTotals();
  });
  const Listener listener(options.directory, driverClass, socketMode(options));
  Journal journal(options.verbose ? stdout : nullptr, openJournal(options));
  const Server server({loop, listener, driver, script, journal}, options.once);
  announce(traffic, listener);
  loop.run();
  printTotals(driver, traffic);
  if (server.brokenProtocols() > 0) std::cout << "broken protocols: " << server.brokenProtocols() << '\n';
  if (options.script) {
    std::cout << "script: " << script.unplayed() << " unplayed, " << script.failures()
              << " not as expected\n";
  }
  std::cout.flush();
  return script.failures() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = parseOptions({argv + 1, argv + argc});
    if (options.help) {
      std::cout << usage;
      return EXIT_SUCCESS;
    }
    allowManyDescriptors();
    return run(options);
  } catch (const UsageError& error) {
    std::cerr << "kesdriver: " << error.what() << '\n' << usage;
    return exitUsage;
  } catch (const std::exception& error) {
    std::cerr << "kesdriver: " << error.what() << '\n';
    return EXIT_FAILURE;
  }
}
