"""Checks the universal programs and libraries below a folder: binaries.py FOLDER [--accept]

Each check of each file prints a line, "ok: ..." or "FAILED: ..." after its complaints. --accept writes
the lists of imports anew from what is there.
"""
import pathlib
import re
import subprocess
import sys

from signature import complaints_about_signature

PROCESSORS = ("arm64", "x86_64")
OLDEST_MACOS = "11.0"
LISTS = pathlib.Path(__file__).parent / "imports"


def llvm(tool, *arguments):
    return subprocess.run([f"llvm-{tool}-19", *map(str, arguments)], capture_output=True, text=True, check=True).stdout


def is_library(path):
    return path.suffix == ".a"


def holds_both_processors(path):
    found = llvm("lipo", "-archs", path).split()
    if sorted(found) != sorted(PROCESSORS):
        yield f"it holds {found}"


def runs_on_the_oldest_macos(path):
    for processor in PROCESSORS:
        headers = llvm("objdump", "--macho", f"--arch={processor}", "--private-headers", path)
        versions = set(re.findall(r"^\s*minos (\S+)$", headers, re.MULTILINE))
        if versions != {OLDEST_MACOS}:
            yield f"{processor}: made for {sorted(versions)}"


def is_signed_where_it_must_be(path):
    yield from complaints_about_signature(path.read_bytes())


def imports_of_program(path, processor):
    """The libraries it loads, and each symbol with the library that it is bound to."""
    loaded = llvm("objdump", "--macho", f"--arch={processor}", "--dylibs-used", path)
    yield from ("loads " + name for name in re.findall(r"^\t(\S+) \(", loaded, re.MULTILINE))
    symbols = llvm("nm", f"--arch={processor}", "-m", "--undefined-only", path)
    for name, library in re.findall(r"external (\S+) \(from (\S+)\)", symbols):
        yield f"{library} {name}"


def imports_of_library(path, processor):
    """What no member defines. Mangled names are left out: other libraries of the project and the C++ library."""
    def names(option):
        listing = llvm("nm", f"--arch={processor}", "--format=just-symbols", "--extern-only", option, path)
        return {line for line in listing.splitlines() if line.startswith("_")}
    missing = names("--undefined-only") - names("--defined-only")
    yield from (name for name in missing if not name.startswith("__Z"))


def imports(path):
    """Import -> "both", or the one processor that has it."""
    listing = imports_of_library if is_library(path) else imports_of_program
    arm64, x86_64 = (set(listing(path, processor)) for processor in PROCESSORS)
    return {name: "both" if name in arm64 and name in x86_64 else "arm64" if name in arm64 else "x86_64"
            for name in arm64 | x86_64}


def list_of(path):
    return LISTS / f"{path.stem}.txt"


def read_list(path):
    entries = {}
    for line in list_of(path).read_text().splitlines():
        if line and not line.startswith("#"):
            name, _, only = line.partition("  # only ")
            entries[name.strip()] = only or "both"
    return entries


def write_list(path):
    what = ("All that no member of the archive defines, mangled C++ names apart."
            if is_library(path) else "The libraries it loads, and each symbol after the library it is bound to.")
    lines = [name if side == "both" else f"{name}  # only {side}" for name, side in sorted(imports(path).items())]
    list_of(path).write_text("\n".join([f"# {what}", *lines, ""]))


def imports_exactly_what_its_list_says(path):
    if not list_of(path).is_file():
        yield f"there is no {list_of(path).name}"
        return
    expected, found = read_list(path), imports(path)
    for name in sorted(expected.keys() | found.keys()):
        if expected.get(name) != found.get(name):
            yield f"{name}: listed for {expected.get(name, 'none')}, imported by {found.get(name, 'none')}"


def check(path, rule):
    complaints = list(rule(path))
    for complaint in complaints:
        print(f"  {path.name}: {complaint}")
    print(f"{'FAILED' if complaints else 'ok'}: {path.name} {rule.__name__.replace('_', ' ')}")
    return not complaints


def main(folder, *options):
    folder = pathlib.Path(folder)
    programs = [path for path in sorted(folder.glob("bin/*")) if not path.read_bytes().startswith(b"#!")]
    libraries = sorted(folder.glob("lib/*.a"))
    if not programs + libraries:
        print(f"FAILED: there is something below {folder}")
        return 1
    if "--accept" in options:
        for path in programs + libraries:
            write_list(path)
    rules = [holds_both_processors, runs_on_the_oldest_macos, imports_exactly_what_its_list_says]
    results = [check(path, rule) for path in programs + libraries for rule in rules]
    results += [check(path, is_signed_where_it_must_be) for path in programs]
    return 0 if all(results) else 1


sys.exit(main(*sys.argv[1:]))
