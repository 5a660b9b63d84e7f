#pragma once

// A header of Linux that tests include: the numbers under which its kernel shows what a thread waits for.
#ifdef __x86_64__
constexpr int SYS_flock = 73;
#else
constexpr int SYS_flock = 32;
#endif
