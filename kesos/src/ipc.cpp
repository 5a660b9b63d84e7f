#include "ipc.h"

#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include "kesos/ipc.h"
#include "paths.h"
#include "usage_table.h"

int ipc_default_mode = 0666;
unsigned int ipc_default_uid = 0xFFFFFFFF;
unsigned int ipc_default_gid = 0xFFFFFFFF;

void KesOsSetIpcPerms(int mode, unsigned int uid, unsigned int gid) {
  ipc_default_mode = mode;
  ipc_default_uid = uid;
  ipc_default_gid = gid;
}

namespace kes::kesos {

namespace {

constexpr unsigned int unchanged = 0xFFFFFFFF;

bool meansCaller(unsigned int id) { return id >= 0xFFFFFFFE; }

}  // namespace

bool ownerWanted() noexcept { return ipc_default_uid != unchanged || ipc_default_gid != unchanged; }

void fillOwner(ipc_perm& permissions) noexcept {
  permissions.uid = meansCaller(ipc_default_uid) ? ::getuid() : ipc_default_uid;
  permissions.gid = meansCaller(ipc_default_gid) ? ::getgid() : ipc_default_gid;
  permissions.mode = static_cast<decltype(permissions.mode)>(ipc_default_mode);
}

bool setSegmentOwner(int shmid) noexcept {
  if (!ownerWanted()) return true;
  shmid_ds state{};
  fillOwner(state.shm_perm);
  return ::shmctl(shmid, IPC_SET, &state) == 0;
}

}  // namespace kes::kesos

int KesOsRemoveKeyed(unsigned int key) {
  using namespace kes::kesos;
  if (key == 0) return failWith(EINVAL);
  const int semid = ::semget(static_cast<key_t>(key), 0, 0);
  if (semid < 0 || ::semctl(semid, 0, IPC_RMID) != 0) return 0;
  forgetTheDead();
  return 1;
}
