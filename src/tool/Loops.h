#pragma once

/// Prints the driver's trace text once a second until 'Q', SIGINT or SIGTERM. Installs the signals' handler.
void ShowTraceLoop(unsigned int connect);

/// Appends the driver's packets to a capture file, one every 10 ms, until 'Q'. An empty name is the default
/// one.
void SaveDump(unsigned int connect, const char* fileName);
