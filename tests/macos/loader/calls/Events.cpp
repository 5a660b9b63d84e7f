#include <sys/event.h>

#include "Calls.h"

namespace loader {

namespace {

const Call calls[] = {{"kqueue", kqueue}, {"kevent", kevent}};

}  // namespace

std::span<const Call> eventCalls() { return calls; }

}  // namespace loader
