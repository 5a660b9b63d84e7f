"""Checks an archive and what came out of it: unpacked.py FOLDER ARCHIVE PREFIX

FOLDER is what was packed. Prints complaints; fails when there are any."""
import hashlib
import pathlib
import sys
import tarfile
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "packaging"))
sys.path.insert(0, str(ROOT / "docs/reference"))
import manual  # noqa: E402 - found by the lines above
from tarball import pack  # noqa: E402


def expected_files():
    """What an installation holds, named from the sources and not from what was packed."""
    yield "include/kes/version.h"
    yield from (f"share/doc/kes/{name}.md" for name in ("README", "CHANGELOG"))
    yield from (f"share/doc/kes/{path.name}" for path in (ROOT / "docs").glob("*.md")
                if path.stem not in ("release", "building-on-a-mac"))
    yield "share/doc/kes/examples/CMakeLists.txt"
    yield from (f"share/doc/kes/examples/{path.name}" for ending in ("c", "cpp")
                for path in (ROOT / "examples").glob(f"*.{ending}"))
    yield from ("bin/kestrace", "bin/kestrace-extcap", "bin/kestrace-log")
    for program in ("kestrace", "kestrace-extcap", "kestrace-log"):
        yield f"share/bash-completion/completions/{program}"
        yield f"share/zsh/site-functions/_{program}"
        yield f"share/fish/vendor_completions.d/{program}.fish"
    for page in (ROOT / "docs/man").glob("*.[1-7]"):
        if page.stem != "kesdriver":
            yield f"share/man/man{page.suffix[1:]}/{page.name}"
    with tempfile.TemporaryDirectory() as folder:
        manual.main(folder)
        yield from (f"share/man/man3/{page.name}" for page in pathlib.Path(folder).iterdir())
    for library in ("kespal", "kesos", "pcaplib"):
        yield f"lib/lib{library}.a"
        yield from (f"lib/pkgconfig/{library}{kind}.pc" for kind in ("", "-static"))
        include = ROOT / library / "include"
        yield from (f"include/{path.relative_to(include).as_posix()}" for path in include.rglob("*.h*"))
    for name in ("kes", "kes-release", "kes-config", "kes-config-version"):
        yield f"lib/cmake/kes/{name}.cmake"


def files(folder):
    return {path.relative_to(folder).as_posix() for path in folder.rglob("*") if path.is_file()}


def complaints_about_members(archive):
    with tarfile.open(archive) as tar:
        for member in tar.getmembers():
            mode = 0o755 if member.isdir() or member.name.startswith("bin/") else 0o644
            if not (member.isdir() or member.isfile()):
                yield f"{member.name}: neither file nor folder"
            if member.name.startswith(("/", ".")) or ".." in member.name.split("/"):
                yield f"{member.name}: leaves the prefix"
            if (member.mode, member.uid, member.gid) != (mode, 0, 0):
                yield f"{member.name}: mode {member.mode:o} of {member.uid}:{member.gid}"


def complaints(packed, archive, prefix):
    wanted, found = set(expected_files()), files(prefix)
    yield from (f"{name}: missing" for name in sorted(wanted - found))
    yield from (f"{name}: nobody expects it" for name in sorted(found - wanted))
    for name in sorted(files(packed) & found):
        if (packed / name).read_bytes() != (prefix / name).read_bytes():
            yield f"{name}: came out changed"
    yield from complaints_about_members(archive)
    again = archive.with_suffix(".again")
    pack(packed, again)
    if hashlib.sha256(again.read_bytes()).digest() != hashlib.sha256(archive.read_bytes()).digest():
        yield "packed again it is another archive"
    again.unlink()


def main(*arguments):
    found = list(complaints(*map(pathlib.Path, arguments)))
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


sys.exit(main(*sys.argv[1:]))
