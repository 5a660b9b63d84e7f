#include "State.h"

constinit DebugLevels dbgLvl{};
constinit unsigned char cmdTrace = 0;
constinit unsigned char cmdPacketDump = 0;
constinit char _dumpFilename[1024] = "";
constinit const char* captureName = _dumpFilename;
constinit volatile unsigned char _exitflg = 0;
constinit termios orig_termios{};
