#include "Loops.h"

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <memory>

#include "Console.h"
#include "DriverCalls.h"
#include "State.h"
#include "client/Records.h"
#include "kesos/kesos.h"
#include "pcaplib/capture.h"

namespace {

using kes::client::packetCapacity;
using kes::client::traceHeader;

constexpr unsigned int tracePeriod = 1000;  // milliseconds
constexpr unsigned int packetPeriod = 10;

constexpr std::size_t traceCapacity = 2047;
constexpr std::size_t shortestPacket = 3;  // a shorter one is announced and not stored

bool isStopping() {
  TerminalMode::resume();
  const bool hasQuitKey = !TerminalMode::isInBackground() && keyb_proc();
  return hasQuitKey || _exitflg != 0;
}

void installSignalHandlers() {
  std::signal(SIGTERM, signalHandler);
  if (std::signal(SIGINT, signalHandler) == SIG_ERR) {
    std::fputs("signal handler (SIGINT) failed to install\n", stderr);
  }
}

void showTrace(unsigned int connect, char* reply) {
  std::size_t count = traceCapacity;
  const kern_return_t result = CallGetTrace(connect, reply, count);
  if (result != KERN_SUCCESS) {
    ReportGetTrace(result);
  } else if (count > traceHeader) {
    reply[count] = '\0';
    Print("%s", reply + traceHeader);
  }
}

void savePacket(unsigned int connect, unsigned char* packet) {
  std::size_t count = packetCapacity;
  const kern_return_t result = CallGetPacket(connect, packet, count);
  if (result != KERN_SUCCESS) {
    ReportGetPacket(result);
  } else if (count != 0) {
    ReportPacket(count);
    if (count >= shortestPacket) DumpPacket(packet, static_cast<unsigned int>(count), PCAP_ETHERNET);
  }
}

}  // namespace

void ShowTraceLoop(unsigned int connect) {
  static char reply[traceCapacity + 1];
  installSignalHandlers();
  Print("quit tracing with 'Q'\n");
  while (!isStopping()) {
    showTrace(connect, reply);
    ::KesOsSleep(tracePeriod);
  }
}

void SaveDump(unsigned int connect, const char* fileName) {
  if (!DumpOpen(fileName, PCAP_ETHERNET)) {
    Print("failed to open file %s\n", fileName);
    return;
  }
  const auto packet = std::make_unique<unsigned char[]>(packetCapacity);
  Print("quit writing dump file with 'Q'\n");
  while (!isStopping()) {
    savePacket(connect, packet.get());
    ::KesOsSleep(packetPeriod);
  }
}
