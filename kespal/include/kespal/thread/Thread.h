#pragma once  // since 0.1

#include "kespal/thread/BasicThread.h"
#include "kespal/thread/CoopThread.h"
#include "kespal/thread/CppThread.h"
