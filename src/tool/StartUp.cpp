#include "StartUp.h"

#include <csignal>

#include "kespal/error/Exception.h"
#include "kespal/signal/Mask.h"
#include "kespal/time/Clock.h"

StartUp::StartUp() {
  kes::signal::Mask::call({SIGPIPE, SIGUSR1, SIGUSR2}, SIG_BLOCK);
  kes::Exception::init();
  kes::time::ClockBase::init();
  kes::time::InitClock::init();
}
