#pragma once

#include "kespal/proc/Shepherd.h"

namespace kes::test {

/// Which children the collector reaps in this run: all, unless KES_TEST_REAPING is "registered". A program
/// that is linked with this has told Child so before its first test.
proc::Reaping whichChildren();

}  // namespace kes::test
