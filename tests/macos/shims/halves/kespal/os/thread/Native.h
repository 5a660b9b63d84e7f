#pragma once

// The choice of this header, made for macOS.
#include "kespal/os/darwin/thread/Native.h"
