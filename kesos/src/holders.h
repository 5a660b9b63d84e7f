#pragma once

namespace kes::kesos {

/// Attaches what the processes note about the holders of keyed mutexes, once for each process. False with
/// errno.
bool joinHolders();

/// Notes that this process holds the mutex, and since when it lives: so that another process which is given
/// its id later is not taken for it.
void noteHolder(int semid);

/// Locks a mutex whose holder died, for which one of those who try is chosen. Whoever holds it is known by
/// the last operation on the semaphore, whether it noted that or not. False when the holder lives, or cannot
/// be known.
bool lockOfDead(int semid);

/// Waits for the first value of a mutex that another process is making, and gives it that value if the other
/// died over it; whether it did.
bool finishForDead(int semid);

}  // namespace kes::kesos
