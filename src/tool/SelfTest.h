#pragma once

/// A self-test of threads and driver calls together, for developers: no command of the tool reaches it. One
/// test at a time.

/// Lets a thread fetch packets over a packet connection as fast as it can, for about three seconds. Progress
/// goes to standard error, the results of the calls to standard output.
void DoTesting(unsigned int connect);

/// The thread of the test; its argument is the connection. Sets t1running while it runs, and ends when
/// t1stop becomes 1.
void* tfunc1(void* connect);

extern unsigned char t1running;  ///< shared by both threads, as is the next
extern unsigned char t1stop;
