// What the handler's thread says about a notifier that throws, whatever stands in its way.
#include <iostream>

#include "kespal/error/OsError.h"
#include "kespal/signal/HandlerFixture.h"
#include "support/ForkedChild.h"
#include "support/Throwing.h"

namespace kes::signal {
namespace {

using namespace test;

/// What a child prints whose notifier for SIGTERM does this; it exits with 0 when its handler's thread then
/// tells another one.
ChildResult whoseNotifier(const std::function<void()>& act) {
  return inChild([&] {
    ::alarm(120);
    Mask::call({SIGUSR1, SIGTERM, SIGINT}, SIG_BLOCK);
    Notifier thrower([&](int) { act(); }), second;
    Handler handler;
    handler.add(SIGTERM, thrower);
    handler.add(SIGINT, second);
    handler.start(SIGUSR1);
    Sender::signalProc(SIGTERM, ::getpid());
    if (!thrower.isTold(1)) return 1;
    Sender::signalProc(SIGINT, ::getpid());
    const bool told = second.isTold(1);
    handler.stop();
    std::cerr.exceptions(std::ios::goodbit);
    return told ? 0 : 2;
  });
}

constexpr const char* unknown = "handle: Got an unknown exception\n";

TEST(HandlerReportTest, AnErrorIsReportedByItsHeadlineWhenMemoryIsOut) {
  const ChildResult child = whoseNotifier([] { throwAndStarve([] { raiseAt(KES_HERE, OsError(EIO)); }); });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
  EXPECT_EQ(child.err, "handle: Got an exception:\n(no memory left for the rest of this report)\n");
}

TEST(HandlerReportTest, AStandardExceptionIsAnUnknownOneAlsoWithoutAText) {
  for (const bool speechless : {false, true}) {
    const ChildResult child = whoseNotifier([speechless] {
      if (speechless) throw Speechless();
      throw std::bad_alloc();
    });
    EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
    EXPECT_EQ(child.err, unknown);
  }
}

TEST(HandlerReportTest, AStreamThatThrowsKeepsNoReportBack) {
  const ChildResult child = whoseNotifier(throwAndSpoilTheStream);
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
  EXPECT_EQ(child.err, unknown);
}

}  // namespace
}  // namespace kes::signal
