#include <cstdio>

#include "CommandLine.h"
#include "Console.h"
#include "DriverCalls.h"
#include "Loops.h"
#include "State.h"
#include "kespal/kespal.h"

namespace {

int showTraces(CONNECTION_INFO& info) {
  if (!OpenConnection(info, traceConnection)) return 1;
  SetDebugLevels(info.connect);
  ShowTraceLoop(info.connect);
  return 0;
}

int saveDump(CONNECTION_INFO& info) {
  if (!OpenConnection(info, dumpConnection)) return 1;
  SaveDump(info.connect, captureName);
  return 0;
}

/// Without a mode there is nothing to do, and the driver is left alone.
int runMode(CONNECTION_INFO& trace, CONNECTION_INFO& dump) {
  if (cmdTrace != 0) return showTraces(trace);
  if (cmdPacketDump != 0) return saveDump(dump);
  return 0;
}

int run(int argc, char** argv, CONNECTION_INFO& trace, CONNECTION_INFO& dump) {
  const TerminalMode keyByKey;
  if (argc < 2 || !ProcessArguments(argc, argv)) {
    PrintUsage(argc > 0 ? argv[0] : "");
    return 1;
  }
  return runMode(trace, dump);
}

int runTool(int argc, char** argv) {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System,
                            /*app=*/nullptr);
  CONNECTION_INFO trace{}, dump{};
  std::setvbuf(stdin, nullptr, _IONBF, 0);
  const int exitCode = run(argc, argv, trace, dump);
  // Process exit closes the dump connection.
  CloseConnection(trace);
  return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return runTool(argc, argv);
  } catch (...) {
    // Only an exception that somebody catches is sure to unwind the stack, and with it to restore the
    // terminal.
    throw;
  }
}
