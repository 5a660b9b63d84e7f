#pragma once

#include "kespal/thread/BasicThread.h"
#include "kespal/thread/CoopThread.h"
#include "kespal/thread/CppThread.h"
