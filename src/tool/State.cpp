#include "State.h"

constinit DebugLevels dbgLvl{};
constinit unsigned char cmdTrace = 0;
constinit unsigned char cmdPacketDump = 0;
constinit const char* _dumpFilename = "";
constinit volatile unsigned char _exitflg = 0;
constinit termios orig_termios{};
