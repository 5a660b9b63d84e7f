#pragma once

// A header of Linux that tests include. The loader hands the call on.
constexpr int PR_SET_PDEATHSIG = 1, PR_GET_DUMPABLE = 3, PR_SET_DUMPABLE = 4, PR_SET_NAME = 15,
              PR_SET_CHILD_SUBREAPER = 36, PR_SET_NO_NEW_PRIVS = 38;

extern "C" int prctl(int option, unsigned long second = 0, unsigned long third = 0, unsigned long fourth = 0,
                     unsigned long fifth = 0);
