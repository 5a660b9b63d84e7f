#include <unistd.h>

#include <atomic>
#include <optional>

#include "kespal/signal/Handler.h"
#include "kespal/signal/Mask.h"
#include "kespal/signal/Names.h"
#include "kespal/signal/ScopedMask.h"
#include "kespal/signal/Sender.h"
#include "support/Eventually.h"
#include "support/EveryFailure.h"
#include "sys/AtEnd.h"

namespace kes::signal {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

struct Counting : Handler::INotify {
  void notify(const int&, const siginfo_t&) override { ++count; }
  std::atomic<int> count{0};
};

/// Blocks what the handler takes, for the life of a play.
class Blocking {
 public:
  Blocking() { Mask::call({SIGUSR1, SIGUSR2, SIGTERM}, SIG_BLOCK); }
  ~Blocking() { Mask::call(before_, SIG_SETMASK); }

 private:
  const Set before_ = Mask::get();
};

const std::vector<test::Raises> handlerErrors = {raises("kes::OsError"), raises("kes::UsageError")};

void expectDelivery(Stage& stage, Handler& handler) {
  Counting counting;
  handler.add(SIGTERM, counting);
  Sender::signalProc(SIGTERM, ::getpid());
  stage.check(test::eventually([&] { return counting.count == 1; }), "signals arrive afterwards");
  handler.remove(SIGTERM, counting);
}

TEST(EveryFailureOfSignals, AHandlerIsStartedAndStopped) {
  expectSurvival({.operations = {"kes::signal::Handler::Handler", "kes::signal::Handler::start",
                                 "kes::signal::Handler::stop", "kes::signal::Handler::~Handler",
                                 "kes::signal::Handler::thread"},
                  .raises = handlerErrors,
                  .play =
                      [](Stage& stage) {
                        const Blocking blocking;
                        std::optional<Handler> handler;
                        stage.act([&] { handler.emplace(); });
                        if (!handler) handler.emplace();
                        stage.act([&] { handler->start(SIGUSR1); });
                        stage.act([&] { handler->stop(); });
                        handler->stop();
                        handler->start(SIGUSR2);
                        expectDelivery(stage, *handler);
                        handler.reset();
                      },
                  .misused = {Call::pthread_kill, Call::pthread_sigmask, Call::sigwait}});
}

TEST(EveryFailureOfSignals, ANotifierIsRegisteredToldAndRemoved) {
  expectSurvival({.operations = {"kes::signal::Handler::add", "kes::signal::Handler::remove",
                                 "kes::signal::Handler::sendMgmSig", "kes::signal::Handler::leaveSignals"},
                  .raises = {raises("kes::OsError"), raises("kes::UsageError", {}, "remove"),
                             raises("kes::RuntimeError", {}, "throwGetIdError")},
                  .play =
                      [](Stage& stage) {
                        const Blocking blocking;
                        Handler handler;
                        Counting first, second;
                        handler.start(SIGUSR1);
                        stage.act([&] { handler.add(SIGTERM, first); });
                        stage.act([&] { handler.add(SIGUSR2, second); });
                        stage.act([&] { handler.remove(SIGUSR2, second); });
                        stage.act([&] { handler.sendMgmSig(); });
                        stage.act([&] { handler.remove(SIGTERM, first); });
                        stage.act([&] { handler.leaveSignals(); });
                        handler.stop();
                        handler.start(SIGUSR1);
                        for (Counting* one : {&first, &second}) {
                          try {
                            handler.remove(one == &first ? SIGTERM : SIGUSR2, *one);
                          } catch (const UsageError&) {
                          }
                        }
                        expectDelivery(stage, handler);
                      },
                  .misused = {Call::pthread_kill, Call::sigaction, Call::sigwait}});
}

TEST(EveryFailureOfSignals, SignalsAreSentMaskedAndNamed) {
  expectSurvival({.operations = {"kes::signal::Sender::signalProc", "kes::signal::Sender::signalThread",
                                 "kes::signal::signame", "kes::signal::siglabel"},
                  .raises = {raises("kes::OsError"), raises("kes::NoSuchProcessError")},
                  .play =
                      [](Stage& stage) {
                        const Blocking blocking;
                        stage.act([] { Sender::signalProc(0, ::getpid()); });
                        stage.act([] { Sender::signalThread(0, ::pthread_self()); });
                        Set mask;
                        stage.act([&] { mask = Mask::get(); });
                        stage.act([] { Mask::call({SIGTERM}, SIG_UNBLOCK); });
                        stage.check(stage.succeeded() != Mask::get().contains(SIGTERM),
                                    "it is masked, or not");
                        std::string name;
                        stage.act([&] { name = siglabel(SIGTERM) + signame(SIGTERM); });
                        stage.check(!stage.succeeded() || name == "SIGTERMTerminated", "the names are whole");
                      },
                  .misused = {Call::pthread_kill, Call::pthread_sigmask}});
}

TEST(EveryFailureOfSignals, SignalsAreBlockedForAScope) {
  expectSurvival(
      {.operations = {"kes::signal::ScopedMask::ScopedMask", "kes::signal::ScopedMask::~ScopedMask"},
       .raises = {raises("kes::OsError")},
       .play =
           [](Stage& stage) {
             const Blocking blocking;
             std::optional<ScopedMask> masked;
             stage.act([&] { masked.emplace(Set{SIGHUP}); });
             stage.check(stage.succeeded() == Mask::get().contains(SIGHUP), "it is masked, or not");
             stage.act([&] { masked.reset(); });
             stage.check(!Mask::get().contains(SIGHUP) || stage.isRefused(Call::pthread_sigmask),
                         "the mask is the one from before");
             const ScopedMask again({SIGHUP});
             stage.check(Mask::get().contains(SIGHUP), "it can be done again");
           },
       .misused = {Call::pthread_sigmask}});
}

}  // namespace
}  // namespace kes::signal
