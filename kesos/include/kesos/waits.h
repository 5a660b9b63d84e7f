#pragma once  // since 0.1

/* What the ...Ex waits are told and tell. A wait gives 1 when it got what it waited for, and 0 otherwise,
 * with the reason in errno; the state word says the same in more words. */

/** A time-out without limit, for every wait of this layer; all others are milliseconds. */
#define KESOS_INFINITE 0xFFFFFFFFU

/** What a wait leaves in the caller's state word. */
enum {
  KESOS_WAIT_FAILED = 0, /**< errno says why */
  KESOS_WAIT_DONE = 1,   /**< locked, or it was set */
  KESOS_WAIT_HOLDER_DIED =
      2, /**< locked, but who held the mutex before died with it: put in order what it guards */
  KESOS_WAIT_TIMED_OUT = 999 /**< the time is over; errno is ETIMEDOUT */
};
