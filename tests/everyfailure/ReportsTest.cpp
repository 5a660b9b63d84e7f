#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>

#include "kespal/ScopeGuard.h"
#include "kespal/UnhandledException.h"
#include "kespal/error/Code.h"
#include "kespal/error/FsError.h"
#include "kespal/error/Json.h"
#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"
#include "support/EveryFailure.h"
#include "support/TempDir.h"

// What is said of errors where nothing may be thrown any more, and in one line.

namespace kes {
namespace {

using test::Call;
using test::expectSurvival;
using test::readFile;
using test::Stage;

const std::string reason = "a reason that is too long to be kept without memory";

/// Standard error goes to a file while this lives.
class Listening {
 public:
  explicit Listening(std::string path) : path_(std::move(path)), before_(::dup(STDERR_FILENO)) {
    const int file = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(file, STDERR_FILENO);
    ::close(file);
  }
  ~Listening() {
    ::dup2(before_, STDERR_FILENO);
    ::close(before_);
  }
  Listening(const Listening&) = delete;
  Listening& operator=(const Listening&) = delete;

  std::string heard() const { return readFile(path_); }

 private:
  const std::string path_;
  const int before_;
};

/// Says something, whatever fails, and all of it unless memory does.
void expectReport(Stage& stage, const std::string& headline, const std::function<void()>& action) {
  const Listening listening(stage / "said");
  stage.act(action);
  stage.check(stage.succeeded(), "a report raises nothing");
  const std::string heard = listening.heard();
  stage.check(heard.starts_with(headline), "it says what this is about");
  const bool isWhole = heard.find(reason) != std::string::npos;
  stage.check(isWhole || (stage.isStarved() && heard.find("(no memory left") != std::string::npos),
              "and why");
}

TEST(EveryFailureOfReports, AGuardSaysWhatItsActionRaised) {
  expectSurvival({.operations = {"kes::ScopeGuardBase::handleEx"}, .play = [](Stage& stage) {
                    const RuntimeError error(reason.c_str());
                    expectReport(stage, "Exception caught while destroying scope guard:\n",
                                 [&error] { ScopeGuardBase::handleEx(error); });
                  }});
}

template <typename Error>
void expectLastWords(Stage& stage) {
  try {
    throw Error(reason.c_str());
  } catch (const std::exception&) {
    expectReport(stage, ">>> unhandled iOS exception occured <<<\n", [] { kespal_unhandled_exception(); });
  }
}

TEST(EveryFailureOfReports, AProgramSaysWhichErrorEndsIt) {
  expectSurvival({.operations = {"kes::kespal_unhandled_exception"},
                  .play = [](Stage& stage) { expectLastWords<RuntimeError>(stage); }});
}

TEST(EveryFailureOfReports, AProgramSaysWhichStandardExceptionEndsIt) {
  expectSurvival({.operations = {"kes::kespal_unhandled_exception"},
                  .play = [](Stage& stage) { expectLastWords<std::runtime_error>(stage); }});
}

TEST(EveryFailureOfReports, AnErrorIsToldInOneLine) {
  expectSurvival({.operations = {"kes::json", "kes::errnum", "kes::errorCode"}, .play = [](Stage& stage) {
                    FsError error("/a/path/that/is/too/long/to/be/kept/\n/without/memory", ENOENT);
                    error.setNext(RuntimeError(reason.c_str()));
                    const std::string whole = json(error);
                    std::string line;
                    stage.act([&] { line = json(error); });
                    // Where the system has no text for a number, another one stands for it.
                    const bool isUnknown = stage.isRefused(Call::__xpg_strerror_r);
                    const bool isWhole = line == whole || (isUnknown && line.ends_with("}}"));
                    stage.check(stage.succeeded() ? isWhole : line.empty(), "all of it or none");
                    stage.act([&] { return errnum(error) == ENOENT && errorCode(error).value() == ENOENT; });
                    stage.check(stage.succeeded(), "its number needs nothing");
                    stage.check(json(error) == whole || isUnknown, "a second try gives all");
                  }});
}

}  // namespace
}  // namespace kes
