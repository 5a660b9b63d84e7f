#!/usr/bin/env python3
"""Packs an installation into an archive that unpacks into a prefix: tarball.py FOLDER ARCHIVE.tar.gz

    sudo tar -xzf kestrace-VERSION-macos.tar.gz -C /usr/local

The same files give the same archive, byte for byte: sorted, owned by root, of one date."""
import gzip
import os
import pathlib
import stat
import sys
import tarfile

DATE = int(os.environ.get("SOURCE_DATE_EPOCH", 1577836800))  # 2020-01-01 is as good as any


def entry(folder, path):
    info = tarfile.TarInfo(path.relative_to(folder).as_posix())
    executable = path.is_dir() or path.stat().st_mode & stat.S_IXUSR
    info.mode = 0o755 if executable else 0o644
    info.mtime = DATE
    info.uname, info.gname = "root", "wheel"
    if path.is_dir():
        info.type = tarfile.DIRTYPE
    else:
        info.size = path.stat().st_size
    return info


def pack(folder, archive):
    with open(archive, "wb") as raw, gzip.GzipFile("", "wb", mtime=DATE, fileobj=raw) as zipped, \
            tarfile.open(fileobj=zipped, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        for path in sorted(folder.rglob("*")):
            if path.is_dir():
                tar.addfile(entry(folder, path))
            else:
                with path.open("rb") as content:
                    tar.addfile(entry(folder, path), content)


if __name__ == "__main__":
    pack(pathlib.Path(sys.argv[1]), sys.argv[2])
