#!/usr/bin/env python3
"""emulating.py LIBRARIES COMMAND...: runs a command in which programs for arm64 start like any other.

The kernel hands such a program to the emulator of Debian's package qemu-user-static, wherever it is started from,
and finds its libraries where they would be installed. Both hold in namespaces of this command's own: nothing else on
the machine notices. System V objects are its own as well, since what others make meanwhile would look like left
behind to a test that was slowed down. Needs root, and a kernel since 6.7, where each user namespace has its own table of formats.
LIBRARIES is a folder with Debian's packages unpacked; "-" leaves the files as they are."""
import ctypes
import os
import signal
import sys

NEW_MOUNTS, NEW_IPC, NEW_USERS = 0x00020000, 0x08000000, 0x10000000  # as clone(2) has them
PRIVATE, READ_ONLY, WHOLE_TREE = 1 << 18, 1, 1 << 14  # as mount(2) has them
FORMAT = "/usr/lib/binfmt.d/qemu-aarch64.conf"

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        sys.exit(f"emulating: {what}: {os.strerror(ctypes.get_errno())}")


def mount(kind, place, flags=0, options=""):
    check(libc.mount(kind.encode(), place.encode(), kind.encode(), ctypes.c_ulong(flags), options.encode()),
          f"{kind or 'own mounts'} on {place}")


def keep_all_ids(namespace):
    """Every user and group stays who it is. Only who is outside may say so."""
    for kind in "uid", "gid":
        with open(f"/proc/{namespace}/{kind}_map", "w", encoding="ascii") as ids:
            ids.write("0 0 4294967295")


def enter_namespaces():
    entered, told = os.pipe()
    outside = os.fork()
    if outside == 0:
        os.close(told)
        if os.read(entered, 1):
            keep_all_ids(os.getppid())
        os._exit(0)
    os.close(entered)
    check(libc.unshare(NEW_USERS | NEW_MOUNTS | NEW_IPC), "namespaces")
    os.write(told, b"!")
    os.close(told)
    if os.waitpid(outside, 0)[1] != 0:
        sys.exit("emulating: the ids of the namespace")


def register_format():
    table = "/proc/sys/fs/binfmt_misc"
    mount("binfmt_misc", table)
    with open(FORMAT, encoding="ascii") as line, open(f"{table}/register", "w", encoding="ascii") as register:
        register.write(line.read().strip())


def add_libraries(folder):
    """Lays them over the system's own, among which there is none of the same name."""
    layers = [f"{folder}/lib", f"{folder}/usr/lib", "/usr/lib"]
    mount("overlay", "/usr/lib", READ_ONLY, "lowerdir=" + ":".join(layers))


def main():
    libraries, command = sys.argv[1], sys.argv[2:]
    enter_namespaces()
    mount("", "/", PRIVATE | WHOLE_TREE)
    register_format()
    if libraries != "-":
        add_libraries(libraries)
    for ignored in signal.SIGPIPE, signal.SIGXFSZ:  # by this interpreter, and what it starts would inherit that
        signal.signal(ignored, signal.SIG_DFL)
    os.execvp(command[0], command)


main()
