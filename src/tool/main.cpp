#include <cstdio>

#include "CommandLine.h"
#include "Console.h"
#include "DriverCalls.h"
#include "Loops.h"
#include "State.h"
#include "kespal/kespal.h"

namespace {

int runMode(const CONNECTION_INFO& connection) {
  if (cmdTrace != 0) {
    SetDebugLevels(connection.connect);
    ShowTraceLoop(connection.connect);
  } else {
    SaveDump(connection.connect, _dumpFilename);
  }
  return 0;
}

int run(int argc, char** argv, CONNECTION_INFO& connection) {
  const TerminalMode keyByKey;
  if (argc < 2 || !ProcessArguments(argc, argv)) {
    PrintUsage(argc > 0 ? argv[0] : "");
    return 1;
  }
  if (cmdTrace == 0 && cmdPacketDump == 0) return 0;  // there is nothing to ask the driver for
  const bool isOpen = OpenConnection(connection, cmdTrace != 0 ? traceConnection : dumpConnection);
  return isOpen ? runMode(connection) : 1;
}

}  // namespace

int main(int argc, char** argv) try {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System,
                            /*app=*/nullptr);
  std::setvbuf(stdin, nullptr, _IONBF, 0);
  CONNECTION_INFO connection{};
  const int exitCode = run(argc, argv, connection);
  // Process exit closes a dump connection.
  if (cmdTrace != 0) CloseConnection(connection);
  return exitCode;
} catch (...) {
  // Only an exception that somebody catches is sure to unwind the stack, and with it to restore the terminal.
  throw;
}
