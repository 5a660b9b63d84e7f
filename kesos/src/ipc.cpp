#include "ipc.h"

#include <unistd.h>

#include "kesos/ipc.h"

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

}  // namespace kes::kesos
