#include <dirent.h>
#include <pty.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>

#include <optional>
#include <sstream>

#include "kespal/Locale.h"
#include "kespal/Terminal.h"
#include "kespal/gettext.h"
#include "kespal/proc/Env.h"
#include "kespal/proc/Info.h"
#include "kespal/time/Clock.h"
#include "support/EveryFailure.h"

namespace kes {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

TEST(EveryFailureOfClocks, ClocksAreRead) {
  expectSurvival({.operations = {"kes::time::ClockBase::init", "kes::time::ClockBase::update",
                                 "kes::time::InitClock::init", "kes::time::InitClock::update"},
                  .raises = {raises("kes::OsError", {}, "update")},
                  .play =
                      [](Stage& stage) {
                        stage.act([] {
                          time::ClockBase::init();
                          time::InitClock::init();
                        });
                        std::optional<time::InitClock> clock;
                        stage.act([&] { clock.emplace(); });
                        if (!clock) clock.emplace();
                        stage.act([&] { clock->update(); });
                        time::RealtimeClock now;
                        stage.act([&] { now.update(); });
                        stage.check(now.sec() != 0, "a reading that fails leaves the one before");
                      },
                  .misused = {Call::clock_gettime}});
}

TEST(EveryFailureOfTheEnvironment, AVariableIsSetReadAndRemoved) {
  expectSurvival({.operations = {"kes::proc::Env::set", "kes::proc::Env::get", "kes::proc::Env::del"},
                  .raises = {raises("kes::OsError", {}, "set")},
                  .play = [](Stage& stage) {
                    const std::string longText(100, 'x');
                    const bool isSet = stage.act([&] { proc::Env::set("KES_EVERY", longText.c_str()); });
                    std::string value = "former";
                    bool found = false;
                    const bool asked = stage.act([&] { found = proc::Env::get("KES_EVERY", value); });
                    if (asked && found) stage.check(isSet && value == longText, "the value is what was set");
                    stage.act([] { proc::Env::del("KES_EVERY"); });
                    const proc::Env all;
                    stage.check(all.begin() <= all.end(), "the array can be walked");
                    ::unsetenv("KES_EVERY");
                  }});
}

/// Of the processes only this one.
dirent* nextOfFew(DIR* folder) {
  for (;;) {
    dirent* const entry = test::real<Call::readdir>(folder);
    const bool isOther = entry != nullptr && std::isdigit(static_cast<unsigned char>(*entry->d_name)) != 0 &&
                         std::to_string(::getpid()) != entry->d_name;
    if (!isOther) return entry;
  }
}

TEST(EveryFailureOfTheEnvironment, TheExecutableAndOtherProcessesAreFound) {
  expectSurvival(
      {.operations = {"kes::proc::Info::exe", "kes::proc::Info::running"},
       .raises = {raises("kes::OsError", {}, "exe")},
       .play =
           [](Stage& stage) {
             std::string path;
             stage.act([&] { path = static_cast<std::string>(proc::Info::exe()); });
             stage.check(!stage.succeeded() || path.ends_with("everyfailure_tests"), "it is this one");
             std::set<int> found;
             const test::Instead<Call::readdir> few(&nextOfFew);
             stage.act([&] { found = proc::Info::running("everyfailure_te"); });
             // A process whose files cannot be opened for these reasons is not ours to see.
             const bool isHidden = stage.isRefused(Call::open, ENOENT) ||
                                   stage.isRefused(Call::open, EACCES) || stage.isRefused(Call::open, EPERM);
             stage.check(!stage.succeeded() || found.empty() || isHidden || found.contains(::getpid()),
                         "an answer is a whole one");
           },
       .limit = std::chrono::seconds(60)});
}

/// A terminal in the place of standard input.
class InputTerminal {
 public:
  InputTerminal() : before_(::dup(STDIN_FILENO)) {
    if (::openpty(&ends_[0], &ends_[1], nullptr, nullptr, nullptr) != 0)
      throw std::runtime_error("no terminal");
    ::dup2(ends_[1], STDIN_FILENO);
  }
  ~InputTerminal() {
    before_ != -1 ? ::dup2(before_, STDIN_FILENO) : ::close(STDIN_FILENO);
    for (const int fd : {ends_[0], ends_[1], before_}) ::close(fd);
  }
  bool echoes() const {
    termios settings{};
    ::tcgetattr(ends_[1], &settings);
    return (settings.c_lflag & ECHO) != 0;
  }

 private:
  int ends_[2] = {-1, -1};
  const int before_;
};

TEST(EveryFailureOfTerminals, EchoIsSwitchedAndTheSizeAsked) {
  expectSurvival({.operations = {"kes::term::Terminal::setEcho", "kes::term::Terminal::size",
                                 "kes::term::Terminal::isTerminal"},
                  .raises = {raises("kes::OsError")},
                  .play = [](Stage& stage) {
                    const InputTerminal input;
                    term::Terminal terminal(term::Terminal::Kind::Stdin);
                    stage.act([&] { terminal.setEcho(false); });
                    stage.check(stage.succeeded() == !input.echoes(), "it echoes unless it was said");
                    stage.act([&] { (void)terminal.size(); });
                    stage.act([&] { (void)terminal.isTerminal(); });
                    terminal.setEcho(true);
                    stage.check(input.echoes(), "it can be switched afterwards");
                  }});
}

TEST(EveryFailureOfTerminals, ColoursAreSwitchedAndWritten) {
  expectSurvival({.operations = {"kes::term::Terminal::init", "kes::term::Terminal::switchColor",
                                 "kes::term::Terminal::processCmd", "kes::term::ColorGuard::ColorGuard",
                                 "kes::term::ColorGuard::~ColorGuard"},
                  .play = [](Stage& stage) {
                    std::ostringstream text;
                    stage.act([] { term::Terminal::init(); });
                    const bool isWritten = stage.act([&] {
                      text << term::Paint{.foreground = term::Red, .force = true};
                      text << term::Command{.flags = term::Command::Reset, .force = true};
                      if (!text) throw std::bad_alloc();  // as streams tell of it
                    });
                    stage.check(!isWritten || text.str() == "\x1b[22m\x1b[31m\x1b[0m", "nothing is missing");
                    std::ostringstream guarded;
                    stage.act(
                        [&] { const term::ColorGuard guard(guarded, {.foreground = 1, .force = true}); });
                    stage.check(!stage.succeeded() || !guarded || guarded.str().ends_with("\x1b[0m"),
                                "the colour is taken back");
                    term::Terminal::setColorMode(false, false);
                  }});
}

TEST(EveryFailureOfLocales, TheLocaleIsChosenAndItsTextsAreFound) {
  expectSurvival({.operations = {"kes::Locale::init", "kes::Locale::language", "kes::Locale::makeTexts",
                                 "kes::findLocaleDir"},
                  .play = [](Stage& stage) {
                    stage.act([] { Locale::init(Locale::System); });
                    stage.act([] { Locale::init(Locale::English); });
                    stage.act([] { (void)Locale::language(); });
                    std::string dir;
                    stage.act([&] { findLocaleDir(dir); });
                    Locale::init(Locale::System);
                  }});
}

}  // namespace
}  // namespace kes
