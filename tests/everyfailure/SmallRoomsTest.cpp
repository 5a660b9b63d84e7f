#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string>
#include <typeinfo>
#include <vector>

#include "kespal/Backtrace.h"
#include "kespal/EchoGuard.h"
#include "kespal/GroupInfo.h"
#include "kespal/Helper.h"
#include "kespal/Locale.h"
#include "kespal/Terminal.h"
#include "kespal/UserInfo.h"
#include "kespal/error/DynError.h"
#include "kespal/error/FsError.h"
#include "kespal/error/OsError.h"
#include "kespal/proc/Env.h"
#include "kespal/time/Clock.h"
#include "support/EveryFailure.h"
#include "support/Pty.h"

// The environment, accounts, the terminal, the locale, texts and errors.

namespace kes {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

TEST(EveryFailureOfTheEnvironment, AVariableIsSetReadAndRemoved) {
  expectSurvival({.operations = {"kes::proc::Env::set", "kes::proc::Env::get", "kes::proc::Env::del"},
                  .raises = {raises("kes::OsError")},
                  .play = [](Stage& stage) {
                    const char* const name = "KES_EVERY_FAILURE";
                    const std::string value = "a value that is too long to be kept without memory";
                    stage.act([&] { proc::Env::set(name, value.c_str()); });
                    stage.check(stage.succeeded() == (::getenv(name) != nullptr),
                                "it is there if that was said");
                    std::string read;
                    ::setenv(name, value.c_str(), 1);
                    if (stage.act([&] { return proc::Env::get(name, read); })) {
                      stage.check(read == value, "it is read whole");
                    }
                    stage.act([&] { proc::Env::del(name); });
                    stage.check(stage.isRefused(Call::unsetenv) || ::getenv(name) == nullptr, "it is gone");
                  }});
}

// The C library's own look-up leaves its file open when the thread is cancelled. A group that never fits is
// sought with ever more room.
const std::vector<Call> groupLookUps = {Call::getgrnam_r, Call::getgrgid_r};

TEST(EveryFailureOfAccounts, AUserIsLookedUp) {
  expectSurvival({.operations = {"kes::UserInfo::UserInfo", "kes::UserInfo::resolve"},
                  .raises = {raises("kes::OsError"), raises("kes::RuntimeError")},
                  .play =
                      [](Stage& stage) {
                        UserInfo user;
                        stage.act([&] { user = UserInfo(0); });
                        stage.check(!stage.succeeded() || user.name == "root", "it is this one");
                        user.name = "root";
                        stage.act([&] { user.resolve(/*byName=*/true, /*withGroup=*/true); });
                        stage.check(!stage.succeeded() || (user.uid == 0 && user.gid == 0), "it is this one");
                      },
                  .spared = groupLookUps,
                  .isCancelled = false});
}

TEST(EveryFailureOfAccounts, AGroupIsLookedUp) {
  expectSurvival({.operations = {"kes::GroupInfo::GroupInfo", "kes::GroupInfo::setID",
                                 "kes::GroupInfo::setName", "kes::GroupInfo::retrieve"},
                  .raises = {raises("kes::OsError"), raises("kes::RuntimeError")},
                  .play =
                      [](Stage& stage) {
                        stage.act([] { const GroupInfo group(0); });
                        GroupInfo group(0);
                        stage.act([&] { group.setName("root"); });
                        stage.check(!stage.succeeded() || group.gid() == 0, "it is this one");
                        stage.act([&] { group.setID(0); });
                        stage.check(!stage.succeeded() || group.name() == "root", "it is this one");
                        stage.act([&] { group.retrieve(); });
                        group.setID(0);
                        stage.check(group.name() == "root", "it can be used afterwards");
                      },
                  .spared = groupLookUps,
                  .isCancelled = false});
}

TEST(EveryFailureOfAccounts, TheOneWhoIsLoggedInIsAskedFor) {
  expectSurvival({.operations = {"kes::UserInfo::setLoginName"},
                  .play = [](Stage& stage) { stage.act([] { UserInfo::setLoginName(); }); }});
}

TEST(EveryFailureOfTheTerminal, ItsSizeIsAskedForAndItsEchoSwitched) {
  expectSurvival({.operations = {"kes::term::Terminal::size", "kes::term::Terminal::setEcho"},
                  .raises = {raises("kes::OsError")},
                  .play = [](Stage& stage) {
                    const test::Pty pty;
                    ::dup2(pty.terminal(), STDIN_FILENO);
                    const termios before = pty.attributes();
                    term::Terminal terminal(term::Terminal::Stdin);
                    stage.act([&] { terminal.size(); });
                    stage.act([&] { terminal.setEcho(false); });
                    stage.check(stage.succeeded() == ((pty.attributes().c_lflag & ECHO) == 0),
                                "nothing is shown if that was said");
                    terminal.setEcho(true);
                    stage.check(pty.attributes().c_lflag == before.c_lflag, "it is as it was");
                  }});
}

TEST(EveryFailureOfTheTerminal, WhatIsTypedIsHiddenForAWhile) {
  expectSurvival({.operations = {"kes::term::EchoGuard::EchoGuard", "kes::term::EchoGuard::~EchoGuard"},
                  .raises = {raises("kes::OsError", {}, "EchoGuard")},
                  .play = [](Stage& stage) {
                    const test::Pty pty;
                    const auto isShown = [&pty] { return (pty.attributes().c_lflag & ECHO) != 0; };
                    std::optional<term::EchoGuard> guard;
                    stage.act([&] { guard.emplace(pty.terminal()); });
                    // Where there is no terminal, there is nothing to hide.
                    const bool isNone = stage.isRefused(Call::tcgetattr, ENOTTY);
                    stage.check(isShown() != stage.succeeded() || isNone, "it is hidden if that was said");
                    if (!guard) guard.emplace(pty.terminal());
                    stage.act([&] { guard.reset(); });
                    stage.check(stage.succeeded(), "the end of a scope raises nothing");
                    const bool isStuck =
                        stage.isRefused(Call::tcsetattr) && !stage.isRefused(Call::tcsetattr, EINTR);
                    stage.check(isShown() || isStuck, "it is shown again");
                  }});
}

TEST(EveryFailureOfTheTerminal, NobodyWhoWantsNoColourGetsAny) {
  expectSurvival({.operations = {"kes::term::Terminal::heedNoColor"}, .play = [](Stage& stage) {
                    ::setenv("NO_COLOR", "a value that is too long to be kept without memory", 1);
                    ::setenv("TERM", "a terminal of a kind that has a name as long as this", 1);
                    ::unsetenv("KES_FORCE_COLOR");
                    term::Terminal::setColorMode(true, true);
                    stage.act([] { term::Terminal::heedNoColor(); });
                    stage.check(term::Terminal::m_stdout_color != stage.succeeded(), "none, or as before");
                    stage.check(term::Terminal::m_stderr_color != stage.succeeded(), "for both");
                  }});
}

TEST(EveryFailureOfTheLocale, TheLocaleOfTheEnvironmentIsTaken) {
  expectSurvival({.operations = {"kes::Locale::init", "kes::Locale::language"}, .play = [](Stage& stage) {
                    stage.act([] { Locale::init(Locale::System); });
                    stage.act([] { Locale::language(); });
                  }});
}

TEST(EveryFailureOfTexts, TextsAreTurnedIntoOthers) {
  expectSurvival(
      {.operations = {"kes::hex", "kes::from_hex", "kes::demangle"}, .play = [](Stage& stage) {
         const std::string text = "bytes that are too many to be kept without memory";
         std::string digits;
         stage.act([&] { digits = hex(text.data(), text.size(), ':', true); });
         stage.check(digits.size() == (stage.succeeded() ? text.size() * 3 - 1 : 0), "all or nothing");
         digits = hex(text.data(), text.size(), ':', true);
         std::basic_string<unsigned char> back;
         if (stage.act([&] { back = from_hex(digits); })) {
           stage.check(std::string(back.begin(), back.end()) == text, "the bytes come back");
         }
         const std::string mangled = typeid(std::vector<std::string>).name();
         std::string name = mangled;
         stage.act([&] { demangle(name); });
         stage.check(name == mangled || name.starts_with("std::vector"), "it is readable, or as it was");
       }});
}

TEST(EveryFailureOfTexts, TheStackIsWrittenDown) {
  expectSurvival({.operations = {"kes::Backtrace::get"}, .play = [](Stage& stage) {
                    Backtrace trace;
                    stage.act([&] { trace = Backtrace::get(); });
                    const bool isRefused =
                        stage.isRefused(Call::backtrace) || stage.isRefused(Call::backtrace_symbols);
                    stage.check(!stage.succeeded() || isRefused || !trace.empty(), "it has frames");
                  }});
}

TEST(EveryFailureOfTexts, TextsAreChangedInPlace) {
  expectSurvival({.operations = {"kes::helper::replace", "kes::helper::replace_chars", "kes::helper::split",
                                 "kes::helper::makeStripped"},
                  .play = [](Stage& stage) {
                    const std::string before =
                        "a text, with commas, that is too long to be kept without memory ";
                    std::string text = before;
                    stage.act([&] { helper::replace(text, ",", "<a comma>"); });
                    stage.check(stage.succeeded() || text == before, "it is as it was");
                    text = before;
                    stage.act([&] { helper::replace_chars(text, "ae", "<a vowel>"); });
                    stage.check(stage.succeeded() || text == before, "it is as it was");
                    text = before;
                    std::vector<std::string> parts;
                    stage.act([&] { helper::split(text, ',', parts, true, true); });
                    stage.check(!stage.succeeded() || parts.size() == 3, "there are three parts");
                    stage.act([&] { helper::makeStripped(text, 0); });
                    stage.check(text == (stage.succeeded() ? before.substr(0, before.size() - 1) : before),
                                "nothing else is taken away");
                  }});
}

TEST(EveryFailureOfErrors, AnErrorTellsItsWholeStory) {
  expectSurvival(
      {.operations = {"kes::FsError::FsError", "kes::FsError::text", "kes::FsError::moreWhat",
                      "kes::OsError::text", "kes::OsError::moreWhat", "kes::Exception::setNext",
                      "kes::Exception::setSite", "kes::Exception::setBacktrace", "kes::Exception::backtrace",
                      "kes::Exception::exStack", "kes::Exception::allTexts", "kes::Exception::textList",
                      "kes::Exception::what", "kes::Exception::~Exception"},
       .play = [](Stage& stage) {
         const std::string path = "/a/path/that/is/too/long/to/be/kept/without/memory";
         stage.act([&] {
           FsError error(path, ENOENT);
           locateAt(KES_HERE, error);
           error.setBacktrace({"a frame that is too long to be kept without memory", "main"});
           OsError cause(EIO);
           error.setNext(cause);
           const std::string story = error.exStack(), list = error.textList();
           stage.check(error.allTexts().size() == 2, "both are told");
           stage.check(story.find(path) != std::string::npos && list.find("#2) ") != std::string::npos,
                       "nothing is cut short");
           stage.check(error.what() != nullptr, "there is a text in any case");
         });
       }});
}

TEST(EveryFailureOfErrors, AnErrorWithATextOfItsOwnKeepsItWhole) {
  expectSurvival({.operations = {"kes::DynError::DynError", "kes::DynError::text", "kes::DynError::moreWhat",
                                 "kes::DynError::stream", "kes::DynError::~DynError"},
                  .play = [](Stage& stage) {
                    stage.act([&] {
                      DynError error("a text that is too long to be kept without memory", "Own");
                      error.stream() << ", and more of it";
                      stage.check(error.text().ends_with("without memory, and more of it"), "it is whole");
                    });
                  }});
}

TEST(EveryFailureOfClocks, TheClocksAreRead) {
  expectSurvival({.operations = {"kes::time::ClockBase::init", "kes::time::ClockBase::update"},
                  .raises = {raises("kes::OsError")},
                  .play =
                      [](Stage& stage) {
                        stage.act([] { time::ClockBase::init(); });
                        time::ClockBase::init();
                        stage.act([] { const time::MonotonicClock now; });
                        const time::MonotonicClock now;
                        stage.check(now.sec() > 0, "it can be read afterwards");
                      },
                  .misused = {Call::clock_gettime}});
}

}  // namespace
}  // namespace kes
