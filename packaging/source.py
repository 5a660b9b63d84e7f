#!/usr/bin/env python3
"""Packs the sources into an archive: source.py ROOT NAME ARCHIVE.tar.gz, with NAME as its only folder.

What belongs to the sources git says, or where there is no git, all that is no build does. The same files give the
same archive, byte for byte: sorted, owned by root, of the time that SOURCE_DATE_EPOCH says."""
import gzip
import os
import pathlib
import stat
import subprocess
import sys
import tarfile


def files(root):
    listed = subprocess.run(["git", "-C", root, "ls-files", "-z"], capture_output=True, text=True, check=False)
    if listed.returncode == 0 and listed.stdout:
        names = listed.stdout.rstrip("\0").split("\0")
    else:
        names = [path.relative_to(root).as_posix() for path in root.rglob("*") if path.is_file()]
        names = [name for name in names if not name.startswith(("build/", ".git/"))]
    return sorted(name for name in names if (root / name).is_file())


def entry(root, name, folder, date):
    info = tarfile.TarInfo(f"{folder}/{name}")
    info.mode = 0o755 if (root / name).stat().st_mode & stat.S_IXUSR else 0o644
    info.size = (root / name).stat().st_size
    info.mtime = date
    info.uname = info.gname = "root"
    return info


def pack(root, folder, archive, date):
    with open(archive, "wb") as raw, gzip.GzipFile("", "wb", mtime=date, fileobj=raw) as zipped, \
            tarfile.open(fileobj=zipped, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        for name in files(root):
            with (root / name).open("rb") as content:
                tar.addfile(entry(root, name, folder, date), content)


if __name__ == "__main__":
    pack(pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3], int(os.environ["SOURCE_DATE_EPOCH"]))
