#include "kespal/thread/PerProcess.h"

#include <pthread.h>

namespace kes::thread {

constinit std::atomic<unsigned> ProcessBound::m_depth{0};

// When the program is initialised, not at the first use: a fork in the middle of that would leave the child
// waiting for its end. It fails only for want of memory, at a time when no program gets far without.
const int ProcessBound::m_counting = ::pthread_atfork(nullptr, nullptr, [] { ++m_depth; });

}  // namespace kes::thread
