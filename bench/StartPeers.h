#pragma once

#include <vector>

#include "Interleaved.h"

/// What else starts programs, of the libraries that are installed: each starts this one, and waits for it.
std::vector<bench::Way> startPeers(const char* program, int times);
