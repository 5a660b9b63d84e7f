"""The flat layer from Python: flat.py LIBRARY FILE. A lock, an event, a mapping of the file, and a string."""
import ctypes
import sys

INFINITE = 0xFFFFFFFF


class Mapping(ctypes.Structure):
    _fields_ = [("fd", ctypes.c_int), ("shmid", ctypes.c_int), ("size", ctypes.c_uint),
                ("address", ctypes.c_void_p), ("created", ctypes.c_int), ("error", ctypes.c_int)]


def wait(kesos, kind, release):
    """Makes an object of a kind, takes it after it was released, and closes it."""
    handle, state = ctypes.c_void_p(), ctypes.c_uint()
    assert getattr(kesos, f"KesOs{kind}Create")(ctypes.byref(handle), 0) == 1 and handle
    if kind == "Event":
        assert kesos.KesOsEventSet(handle) == 1
    assert getattr(kesos, f"KesOs{kind}Wait")(handle, INFINITE, ctypes.byref(state)) == 1 and state.value == 1
    if release:
        assert kesos.KesOsMutexRelease(handle) == 1
    assert getattr(kesos, f"KesOs{kind}Close")(handle) == 1


def use_mapping(kesos, path):
    mapping = Mapping()
    assert kesos.KesOsMmfCreate(ctypes.byref(mapping), 4096, path.encode(), 0) == 1
    assert (mapping.size, mapping.error, mapping.shmid) == (4096, 0, -1)
    ctypes.memmove(mapping.address, b"kept", 4)
    assert kesos.KesOsMmfFlush(ctypes.byref(mapping), ctypes.c_void_p(mapping.address), ctypes.c_size_t(4)) == 1
    assert kesos.KesOsMmfClose(ctypes.byref(mapping)) == 1
    with open(path, "rb") as file:
        assert file.read(5) == b"kept\0"


def use_string(kesos):
    text = ctypes.create_string_buffer(8)
    assert kesos.strcpy_kes(text, ctypes.c_size_t(8), b"too long a text")
    assert text.value == b"too lon"
    assert kesos.sprintf_kes(text, ctypes.c_size_t(8), b"%d", 4711) == 4 and text.value == b"4711"


def main(library, path):
    kesos = ctypes.CDLL(library)
    kesos.strcpy_kes.restype = ctypes.c_void_p
    for create in (kesos.KesOsMutexClose, kesos.KesOsMutexRelease, kesos.KesOsEventClose, kesos.KesOsEventSet):
        create.argtypes = [ctypes.c_void_p]
    wait(kesos, "Mutex", release=True)
    wait(kesos, "Event", release=False)
    use_mapping(kesos, path)
    use_string(kesos)


main(*sys.argv[1:])
