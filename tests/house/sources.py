"""The files of the project, and what they include; shared by the house rules."""
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCE_ENDINGS = {".h", ".hpp", ".c", ".cpp", ".m", ".mm"}
# Where public headers lie; an include of "kespal/fs/Path.h" is resolved against these.
INCLUDE_FOLDERS = [ROOT / part / "include" for part in ("kespal", "kesos", "pcaplib", "iokit")]


def sources(*folders):
    """Every source file below the folders, as paths relative to the root."""
    for folder in folders:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in SOURCE_ENDINGS:
                yield path.relative_to(ROOT)


def public_headers(library):
    folder = ROOT / library / "include"
    return [path.relative_to(folder).as_posix() for path in sorted(folder.rglob("*")) if path.suffix in (".h", ".hpp")]


def includes(path):
    """What a file includes with quotes, as written."""
    text = (ROOT / path).read_text()
    return re.findall(r'^\s*#\s*(?:include|import)\s+"([^"]+)"', text, re.MULTILINE)


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)
