// A library for the backtrace tests, built under two names of the same length.
extern "C" void KES_PLUGIN_NAME(void (*call)(void*), void* argument);
extern "C" void KES_PLUGIN_NAME(void (*call)(void*), void* argument) {
  call(argument);
  asm volatile("");  // no tail call, or the frame is gone
}
