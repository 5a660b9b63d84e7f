#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdint>
#include <iterator>

#include "Calls.h"
#include "Variadic.h"
#include "calls/Records.h"

namespace loader {

namespace {

mac::IpcPermissions macPermissions(const ipc_perm& host) {
  return {host.uid,   host.gid,  host.cuid, host.cgid, static_cast<std::uint16_t>(host.mode),
          host.__seq, host.__key};
}
void givePermissions(const mac::IpcPermissions& mac, ipc_perm& host) {
  host.uid = mac.user;
  host.gid = mac.group;
  host.mode = mac.mode;
}

// --- semaphores

constexpr int macRemove = 0, macSet = 1, macState = 2;

/// This system's number of what is asked of a value, or of all; the platform counts from 3.
int hostCommand(int mac) {
  constexpr int hosts[] = {GETNCNT, GETPID, GETVAL, GETALL, GETZCNT, SETVAL, SETALL}, first = 3;
  const int number = mac - first;
  return number >= 0 && number < static_cast<int>(std::size(hosts)) ? hosts[number] : -1;
}

int askState(int id, mac::SemaphoreState* mac) {
  semid_ds host{};
  if (::semctl(id, 0, IPC_STAT, &host) != 0) return -1;
  *mac = {};
  mac->permissions = macPermissions(host.sem_perm);
  mac->count = static_cast<std::uint16_t>(host.sem_nsems);
  mac->operated = host.sem_otime;
  mac->changed = host.sem_ctime;
  return 0;
}

int setState(int id, const mac::SemaphoreState& mac) {
  semid_ds host{};
  if (::semctl(id, 0, IPC_STAT, &host) != 0) return -1;
  givePermissions(mac.permissions, host.sem_perm);
  return ::semctl(id, 0, IPC_SET, &host);
}

/// What follows is a number, or the address of a state or of numbers.
int controlSemaphores(int id, int number, int command, MacList rest) {
  const auto argument = HostArguments(rest).next<std::uintptr_t>();
  if (command == macRemove) return ::semctl(id, number, IPC_RMID);
  if (command == macState) return askState(id, reinterpret_cast<mac::SemaphoreState*>(argument));
  if (command == macSet) return setState(id, *reinterpret_cast<const mac::SemaphoreState*>(argument));
  return ::semctl(id, number, hostCommand(command), argument);
}

// --- shared memory

// A removed segment has neither state nor attachments to give over there.
bool isRemoved(int id) {
  shmid_ds host{};
  return ::shmctl(id, IPC_STAT, &host) == 0 && (host.shm_perm.mode & SHM_DEST) != 0;
}
int refuse(int error) {
  errno = error;
  return -1;
}

int askState(int id, mac::SegmentState* mac) {
  shmid_ds host{};
  if (::shmctl(id, IPC_STAT, &host) != 0) return -1;
  *mac = {macPermissions(host.shm_perm),
          host.shm_segsz,
          host.shm_lpid,
          host.shm_cpid,
          static_cast<std::uint16_t>(host.shm_nattch),
          host.shm_atime,
          host.shm_dtime,
          host.shm_ctime,
          nullptr};
  return 0;
}

int setState(int id, const mac::SegmentState& mac) {
  shmid_ds host{};
  if (::shmctl(id, IPC_STAT, &host) != 0) return -1;
  givePermissions(mac.permissions, host.shm_perm);
  return ::shmctl(id, IPC_SET, &host);
}

int controlSegment(int id, int command, mac::SegmentState* state) {
  if (isRemoved(id)) return refuse(EINVAL);
  if (command == macRemove) return ::shmctl(id, IPC_RMID, nullptr);
  if (command == macState) return askState(id, state);
  return command == macSet ? setState(id, *state) : refuse(EINVAL);
}

int getSegment(key_t key, std::size_t size, int flags) {
  constexpr std::size_t largest = std::size_t{4} << 20;  // as the platform is set up
  return size > largest ? refuse(EINVAL) : ::shmget(key, size, flags);
}

void* attach(int id, const void* address, int flags) {
  if (!isRemoved(id)) return ::shmat(id, address, flags);
  refuse(EINVAL);
  return reinterpret_cast<void*>(-1);
}

const Call calls[] = {
    {"semget", ::semget},       {"semop", ::semop}, {"semctl", variadic<controlSemaphores>},
    {"shmget", getSegment},     {"shmat", attach},  {"shmdt", ::shmdt},
    {"shmctl", controlSegment}, {"ftok", ::ftok},
};

}  // namespace

std::span<const Call> systemVCalls() { return calls; }

}  // namespace loader
