#include <sstream>

#include "kespal/Backtrace.h"
#include "kespal/Helper.h"
#include "kespal/Hexdump.h"
#include "kespal/error/BadPermissionsError.h"
#include "kespal/error/DynError.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Access.h"
#include "support/EveryFailure.h"

namespace kes {
namespace {

using test::Call;
using test::expectSurvival;
using test::Stage;

const std::string longText(200, 't');

/// One with all that an error can have.
BadPermissionsError richError() {
  BadPermissionsError error("/a/rather/long/path/that/needs/memory", fs::Access(1, 2, 0640), longText);
  error.setSite(KES_HERE);
  error.setBacktrace(Backtrace{"outer frame with a name", "inner frame with a name"});
  const FsError cause("/the/path/of/the/cause/is/long/as/well", ENOENT);
  error.setNext(cause);
  return error;
}

TEST(EveryFailureOfErrors, AnErrorIsMadeAndTold) {
  expectSurvival(
      {.operations = {"kes::Exception::exStack", "kes::Exception::textList", "kes::Exception::allTexts",
                      "kes::Exception::text", "kes::BadPermissionsError::text", "kes::FsError::text",
                      "kes::OsError::text", "kes::OsError::errnumLabel", "kes::StaticError::text",
                      "kes::DynError::text", "kes::DynError::moreWhat", "kes::FsError::moreWhat",
                      "kes::OsError::moreWhat", "kes::StaticError::moreWhat", "kes::Exception::moreWhat"},
       .play = [](Stage& stage) {
         const BadPermissionsError error = richError(), same = richError();
         const RuntimeError plain("a text that is long enough to need memory");
         const std::string stack = same.exStack(), list = same.textList(), whole = same.what();
         std::string found = "before";
         stage.act([&] { found = error.exStack(); });
         // Where the system has no text for a number, "<unknown-error>" stands for it.
         const auto isUnknown = [&] { return stage.isRefused(Call::__xpg_strerror_r); };
         const bool isWhole =
             found == stack || (isUnknown() && found.find("<unknown-error> (2") != found.npos);
         stage.check(stage.succeeded() ? isWhole : found == "before", "all of it or none");
         stage.check(error.exStack() == stack || isUnknown(), "a second try gives all");
         stage.act([&] { found = error.textList(); });
         if (stage.succeeded() && !isUnknown()) stage.check(found == list, "the list");
         const DynError fresh(longText, "A kind of");
         stage.act([&] { found = fresh.Exception::text() + fresh.text() + plain.Exception::text(); });
         stage.check(fresh.Exception::text() == "A kind of error occured. " + longText, "whole");
         stage.act([&] { found = OsError(ENOENT).text() + OsError(-1).text() + plain.text(); });
         if (stage.succeeded()) stage.check(found.find("(2)") != found.npos, "the number");
       }});
}

TEST(EveryFailureOfErrors, AnErrorIsCopiedIntoItselfAndIntoItsBases) {
  expectSurvival(
      {.operations = {"kes::DynError::DynError", "kes::FsError::FsError",
                      "kes::BadPermissionsError::BadPermissionsError", "kes::DynError::stream",
                      "kes::Exception::~Exception", "kes::DynError::~DynError", "kes::Exception::setNext",
                      "kes::Exception::setSite", "kes::Exception::setBacktrace"},
       .play = [](Stage& stage) {
         BadPermissionsError error = richError();
         const std::string before = error.exStack();
         std::unique_ptr<Exception> clone;
         stage.act([&] { clone.reset(error.clone()); });
         stage.check((clone != nullptr) == stage.succeeded(), "a copy or none");
         if (clone != nullptr) stage.check(clone->exStack() == before, "a whole one");
         std::optional<FsError> base;
         stage.act([&] { base.emplace(error); });
         if (base)
           stage.check(base->text().starts_with(error.path()) && base->next() != nullptr, "as a base");
         std::optional<DynError> further;
         stage.act([&] { further.emplace(error); });
         if (further) stage.check(further->text().find(longText) != std::string::npos, "as a further one");
         stage.act([&] { error.setNext(error); });
         if (!stage.succeeded()) stage.check(error.exStack() == before, "its cause stays");
         stage.act([&] { error.stream() << longText; });
         stage.check(std::unique_ptr<Exception>(error.clone()) != nullptr, "it can be used afterwards");
         stage.act([&] { BadPermissionsError made = richError(); });
       }});
}

TEST(EveryFailureOfErrors, AnErrorIsRaisedAndPassedOn) {
  expectSurvival({.operations = {"kes::FsError::FsError"}, .play = [](Stage& stage) {
                    Exception::m_gen_backtraces = true;
                    Exception::init();
                    Exception::m_gen_backtraces = true;
                    const std::string path = "/a/path/that/is/long/enough/to/need/memory";
                    std::string passed;
                    stage.act([&] {
                      try {
                        try {
                          raiseAt(KES_HERE, NoSuchFileError(path, ENOENT));
                        } catch (const Exception& error) {
                          error.raise();
                        }
                      } catch (const NoSuchFileError& error) {
                        passed = error.path();
                      }
                    });
                    stage.check(passed == (stage.succeeded() ? path : ""),
                                "as what it is, or for want of memory");
                  }});
}

TEST(EveryFailureOfErrors, AnExplanationIsRead) {
  expectSurvival({.operations = {"kes::Exception::what", "kes::Exception::backtrace", "kes::Exception::init"},
                  .play =
                      [](Stage& stage) {
                        const BadPermissionsError error = richError();
                        std::string found;
                        ::setenv("KES_BACKTRACE", "", 1);
                        stage.act([&] {
                          Exception::init();
                          found = error.what();
                        });
                        stage.check(stage.succeeded() && Exception::m_gen_backtraces, "it is on");
                        stage.check(found.find(longText) != found.npos, "the text");
                        stage.check(error.backtrace().size() == 2, "the frames");
                      },
                  // Being noexcept, it ends the program for want of memory, as its declaration says.
                  .spared = {Call::operatorNew, Call::malloc, Call::calloc}});
}

TEST(EveryFailureOfErrors, AStackIsTold) {
  expectSurvival(
      {.operations = {"kes::Backtrace::get", "kes::operator<<", "kes::demangle"}, .play = [](Stage& stage) {
         Backtrace trace;
         stage.act([&] { trace = Backtrace::get(); });
         std::ostringstream text;
         text.exceptions(std::ios::badbit);
         stage.act([&] { text << trace; });
         std::string name = "_ZN3kes9Backtrace3getEv";
         const std::string mangled = name;
         stage.act([&] { demangle(name); });
         stage.check(name == mangled || name == "kes::Backtrace::get()", "one or the other");
         stage.check(!Backtrace::get().empty(), "it works afterwards");
       }});
}

TEST(EveryFailureOfErrors, TextIsHelpedWith) {
  expectSurvival(
      {.operations = {"kes::hex", "kes::from_hex", "kes::helper::replace", "kes::helper::replace_chars",
                      "kes::helper::split", "kes::helper::makeStripped"},
       .play = [](Stage& stage) {
         const std::string before = " a-text,of-some-length,and-a-few-pieces ";
         std::string text = before;
         stage.act([&] { helper::replace(text, "-", " instead of it "); });
         stage.check(stage.succeeded() ? text.find('-') == text.npos : text == before,
                     "replaced, or as before");
         text = before;
         stage.act([&] { helper::replace_chars(text, "-,", " instead of it "); });
         stage.check(stage.succeeded() ? text.find('-') == text.npos : text == before,
                     "replaced, or as before");
         std::vector<std::string> parts;
         stage.act([&] { helper::split(before, ',', parts, true, true); });
         if (stage.succeeded()) stage.check(parts.size() == 3 && parts[0] == "a-text", "pieces");
         stage.act([&] { helper::makeStripped(text, 0); });
         stage.check(stage.succeeded(), "stripping takes no memory");
         std::string digits;
         std::basic_string<unsigned char> bytes;
         stage.act([&] {
           digits = hex(before.data(), before.size(), ':', true);
           bytes = from_hex(digits);
         });
         if (stage.succeeded()) stage.check(bytes.size() == before.size(), "there and back");
       }});
}

TEST(EveryFailureOfErrors, BytesAreDumped) {
  expectSurvival(
      {.operations = {"kes::operator<<"}, .play = [](Stage& stage) {
         const std::string bytes(10'000, 'x');
         const Hexdump dump{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), 16, ", "};
         std::ostringstream whole, found;
         whole << dump;
         found.exceptions(std::ios::badbit);
         const auto flags = found.flags();
         stage.act([&] { found << dump; });
         if (stage.succeeded()) stage.check(found.str() == whole.str(), "all of it");
         stage.check(found.flags() == flags && found.fill() == ' ', "flags and fill stay");
       }});
}

}  // namespace
}  // namespace kes
