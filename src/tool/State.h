#pragma once

#include <termios.h>

/// What the tool knows process-wide; all zero at the start. One thread; the signal handler writes _exitflg.

/// Debug levels of the driver's three parts, as given on the command line.
struct DebugLevels {
  unsigned short driver;
  unsigned short ppp;
  unsigned short oid;
};

// NOLINTBEGIN(bugprone-reserved-identifier): established names
extern DebugLevels dbgLvl;
extern unsigned char cmdTrace;           ///< 1 with "-trace"
extern unsigned char cmdPacketDump;      ///< 1 with "-dump"
extern const char* _dumpFilename;        ///< the argument behind "-dump"
extern volatile unsigned char _exitflg;  ///< 1 once a signal has asked the loops to stop
// NOLINTEND(bugprone-reserved-identifier)
extern termios orig_termios;  ///< standard input's attributes before the tool changed them
