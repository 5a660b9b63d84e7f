"""What the tests of a coverage build have reached:

    coverage.py clear BUILD                 forgets what was counted
    coverage.py report BUILD EXCEPTIONS     lines and branches of each folder; 1 if there are too few

What was not reached is listed in BUILD/missed.txt. EXCEPTIONS names functions that do not count, each with
its reason: FILE FUNCTION REASON, one on a line."""
import collections
import concurrent.futures
import functools
import json
import math
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = ("sys", "kespal", "kesos", "pcaplib", "src/client", "src/extcap", "src/tool")
LEAST_LINES, LEAST_BRANCHES = 98.0, 90.0


def clear(build):
    """Empty files that everybody may write: some tests give up their rights before they start a program."""
    for notes in pathlib.Path(build).rglob("*.gcno"):
        data = notes.with_suffix(".gcda")
        data.write_bytes(b"")
        data.chmod(0o666)


def folder_of(path):
    return next((folder for folder in FOLDERS if path.startswith(folder + "/")), None)


def gcov(build, notes):
    """What gcov says about some objects: a document for each."""
    command = ["gcov", "--json-format", "--stdout", "--branch-probabilities", *map(str, notes)]
    result = subprocess.run(command, cwd=build, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        sys.exit(f"gcov: {result.stderr[-2000:]}")
    return [json.loads(line) for line in result.stdout.splitlines() if line.startswith("{")]


def documents(build):
    for data in build.rglob("*.gcda"):
        if data.stat().st_size == 0:
            data.unlink()  # its program never ran, which is another thing than a broken file
    notes = sorted(path.resolve() for path in build.rglob("*.gcno"))
    parts = [notes[i:i + 8] for i in range(0, len(notes), 8)]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for some in pool.map(lambda part: gcov(build, part), parts):
            yield from some


def decisions(branches):
    """The branches that stand in the source: an exception out of a call makes two of its own, the way on and
    the way out."""
    kept, i = [], 0
    while i < len(branches):
        pair = branches[i:i + 2]
        if len(pair) == 2 and pair[0]["throw"] != pair[1]["throw"]:
            i += 2
            continue
        if not branches[i]["throw"]:
            kept.append(branches[i]["count"])
        i += 1
    return kept


class Source:
    """The counts of one file, summed over all objects that contain a part of it."""

    def __init__(self, path):
        self.text = (ROOT / path).read_text().splitlines()
        self.lines = collections.Counter()
        self.copies, self.branches = {}, {}
        self.functions = {}

    def add(self, entry):
        for function in entry["functions"]:
            self.functions[function["demangled_name"]] = (function["start_line"], function["end_line"])
        for line in entry["lines"]:
            number = line["line_number"]
            if self.is_bracket(number):
                continue
            self.lines[number] += line["count"]
            counts = decisions(line["branches"])
            if counts:
                self.copies.setdefault(number, []).append(counts)

    def is_bracket(self, number):
        """Nothing stands there but the way out of a block, which an error may be the first to take."""
        return re.fullmatch(r"\s*\}[;)]*(?: *//.*)?", self.text[number - 1]) is not None

    def add_up_branches(self):
        """A line that is in several functions (of a template, or inlined) is one. What was inlined into a function
        more than once repeats there."""
        for number, copies in self.copies.items():
            width = functools.reduce(math.gcd, map(len, copies))
            if width == 1:
                width = max(map(len, copies))
            sums = [0] * width
            for i, count in ((i, count) for counts in copies for i, count in enumerate(counts)):
                sums[i % width] += count
            self.branches[number] = sums

    def leave_out(self, function):
        spans = [span for name, span in self.functions.items() if function in name]
        inside = {n for n in self.lines if any(first <= n <= last for first, last in spans)}
        self.lines = collections.Counter({n: count for n, count in self.lines.items() if n not in inside})
        self.branches = {n: sums for n, sums in self.branches.items() if n not in inside}
        return bool(spans)

    def missed(self):
        for number, count in sorted(self.lines.items()):
            sums = self.branches.get(number, [])
            if count == 0:
                yield number, "line"
            elif 0 in sums:
                never = ", ".join(str(i + 1) for i, taken in enumerate(sums) if taken == 0)
                yield number, f"branch {never} of {len(sums)}"


def collect(build):
    sources = {}
    for document in documents(build):
        for entry in document["files"]:
            path = entry["file"]
            if folder_of(path):
                sources.setdefault(path, Source(path)).add(entry)
    for source in sources.values():
        source.add_up_branches()
    return sources


def leave_out(sources, path):
    """Takes the exceptions out; what is named but is not there is a mistake."""
    fine = True
    for line in pathlib.Path(path).read_text().splitlines():
        if not line or line.startswith("#"):
            continue
        match = re.fullmatch(r"(\S+) (\S+) +(\S.*)", line)
        if match is None or match[1] not in sources or not sources[match[1]].leave_out(match[2]):
            print(f"{path}: no such function, or no reason: {line}")
            fine = False
    return fine


def percent(reached, total):
    return 100.0 * reached / total if total else 100.0


def print_folder(folder, sources):
    lines = [count for source in sources for count in source.lines.values()]
    branches = [count for source in sources for sums in source.branches.values() for count in sums]
    reached = [sum(count > 0 for count in counts) for counts in (lines, branches)]
    shares = percent(reached[0], len(lines)), percent(reached[1], len(branches))
    enough = shares[0] >= LEAST_LINES and shares[1] >= LEAST_BRANCHES
    print(f"{folder:10} lines {shares[0]:6.2f} % of {len(lines):5}   branches {shares[1]:6.2f} % of {len(branches):5}"
          + ("" if enough else "   TOO FEW"))
    return enough


def report(build, exceptions):
    build = pathlib.Path(build)
    sources = collect(build)
    fine = leave_out(sources, exceptions)
    for folder in FOLDERS:
        fine &= print_folder(folder, [source for path, source in sources.items() if folder_of(path) == folder])
    with (build / "missed.txt").open("w") as missed:
        for path, source in sorted(sources.items()):
            for number, what in source.missed():
                print(f"{path}:{number}: {what}", file=missed)
    return 0 if fine else 1


if __name__ == "__main__":
    action = {"clear": clear, "report": report}[sys.argv[1]]
    sys.exit(action(*sys.argv[2:]))
