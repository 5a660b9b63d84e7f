#pragma once

#include <ctime>

extern "C" {

/// The wall-clock time `ms` milliseconds from now, for timed waits; both fields 0 when there is no clock.
void setTimespec(timespec* ts, unsigned int ms);
}
