// What guards a scope, and what repeats a call.
#include <pthread.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "sys/AtEnd.h"
#include "sys/NoCancel.h"
#include "sys/Retry.h"

namespace kes::sys {
namespace {

TEST(AtEndTest, ActsWhenTheScopeIsLeftHoweverThatHappens) {
  int acted = 0;
  {
    const AtEnd acting([&acted] { ++acted; });
    EXPECT_EQ(acted, 0);
  }
  EXPECT_EQ(acted, 1);
  try {
    const AtEnd acting([&acted] { ++acted; });
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(acted, 2);
}

TEST(AtEndTest, DoesNothingOnceItIsDismissed) {
  bool acted = false;
  {
    AtEnd acting([&acted] { acted = true; });
    acting.dismiss();
  }
  EXPECT_FALSE(acted);
}

int cancelState() {
  int state = -1, ignored = 0;
  ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  ::pthread_setcancelstate(state, &ignored);
  return state;
}

TEST(NoCancelTest, CancellationIsHeldBackForTheScopeAndNoLonger) {
  ASSERT_EQ(cancelState(), PTHREAD_CANCEL_ENABLE);
  {
    const NoCancel outer;
    EXPECT_EQ(cancelState(), PTHREAD_CANCEL_DISABLE);
    { const NoCancel inner; }
    EXPECT_EQ(cancelState(), PTHREAD_CANCEL_DISABLE) << "the inner one leaves what it found";
  }
  EXPECT_EQ(cancelState(), PTHREAD_CANCEL_ENABLE);
}

/// Answers these, one after the other, with errno as told.
struct Scripted {
  struct Answer {
    int result, errnum;
  };
  std::vector<Answer> answers;
  std::size_t calls = 0;

  int operator()() {
    const Answer& answer = answers.at(calls++);
    errno = answer.errnum;
    return answer.result;
  }
};

struct Outcome {
  int result, errnum;
  std::size_t calls;
  bool operator==(const Outcome&) const = default;
};

Outcome outcomeOf(std::vector<Scripted::Answer> answers) {
  Scripted call{std::move(answers)};
  const int result = retry([&] { return call(); });
  return {result, errno, call.calls};
}

TEST(RetryTest, OnlyACallThatASignalInterruptedIsRepeated) {
  EXPECT_EQ(outcomeOf({{5, 0}, {6, 0}}), (Outcome{5, 0, 1}));
  EXPECT_EQ(outcomeOf({{-1, EINTR}, {-1, EINTR}, {0, 0}, {1, 0}}), (Outcome{0, 0, 3}));
  EXPECT_EQ(outcomeOf({{-1, EINTR}, {-1, EIO}, {0, 0}}), (Outcome{-1, EIO, 2}));
  EXPECT_EQ(outcomeOf({{-1, EAGAIN}, {0, 0}}), (Outcome{-1, EAGAIN, 1}));
  EXPECT_EQ(outcomeOf({{3, EINTR}, {0, 0}}), (Outcome{3, EINTR, 1})) << "errno says nothing of a success";
}

}  // namespace
}  // namespace kes::sys
