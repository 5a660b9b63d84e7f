#include <IOKit/IOKitLib.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

// The calls of the tool's dump loop and nothing else, until a key comes.
int main() {
  const io_service_t service =
      ::IOServiceGetMatchingService(kIOMasterPortDefault, ::IOServiceMatching("kes_vpn_driver_keslbmac"));
  io_connect_t connect = 0;
  if (::IOServiceOpen(service, mach_task_self(), 0, &connect) != KERN_SUCCESS) return 1;
  const uint64_t type = 2;
  ::IOConnectCallScalarMethod(connect, 0, &type, 1, nullptr, nullptr);
  for (;;) {
    static unsigned char packet[4096];
    size_t size = sizeof packet;
    ::IOConnectCallMethod(connect, 2, nullptr, 0, nullptr, 0, nullptr, nullptr, packet, &size);
    const timespec period{.tv_sec = 0, .tv_nsec = 10'000'000};
    ::nanosleep(&period, nullptr);
    fd_set input;
    FD_ZERO(&input);
    FD_SET(0, &input);
    timeval none{};
    if (::select(1, &input, nullptr, nullptr, &none) != 0) return 0;
  }
}
