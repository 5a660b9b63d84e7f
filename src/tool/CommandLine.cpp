#include "CommandLine.h"

#include <cstdlib>
#include <string_view>

#include "Console.h"
#include "State.h"

namespace {

/// The level that an option sets, or null for any other word.
unsigned short* levelOf(std::string_view option) {
  if (option == "-d") return &dbgLvl.driver;
  if (option == "-p") return &dbgLvl.ppp;
  if (option == "-c" || option == "-o") return &dbgLvl.oid;
  return nullptr;
}

/// The low 16 bits of a decimal number; 0 for a word that is none.
unsigned short toLevel(const char* value) {
  return static_cast<unsigned short>(std::strtol(value, nullptr, 10));
}

}  // namespace

void PrintUsage(const char* program) {
  Print(
      "usage: %s [-trace|-dump] <options>\n"
      "\n"
      "  -trace   get driver traces\n"
      "   options: [-d <driverDbgLvl> -p <pppDbgLvl> -o <oidDbgLvl>]\n"
      "\n"
      "  -dump    write PCAP compatible dump file\n"
      "   options: capture filename\n"
      "\n",
      program);
}

bool DoTraceCmdLineProcessing(int argc, char** argv, int& index) {
  unsigned short* level = levelOf(argv[index]);
  if (level == nullptr || index + 1 >= argc) return false;
  *level = toLevel(argv[++index]);
  return true;
}

bool ProcessArguments(int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    const std::string_view argument = argv[index];
    if (argument == "-trace") {
      cmdTrace = 1;
    } else if (argument == "-dump") {
      cmdPacketDump = 1;
      if (++index < argc) _dumpFilename = argv[index];
    } else if (!DoTraceCmdLineProcessing(argc, argv, index)) {
      return false;
    }
  }
  return true;
}
