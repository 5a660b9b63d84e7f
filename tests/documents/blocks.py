"""Compiles and runs every code block of a document: blocks.py CONFIGURATION DOCUMENT...

A block is what its language says: `cpp` and `c` are whole programs, compiled as they stand with warnings as errors,
and run; `sh` is run by bash, where the sources and build/release are at hand; `cmake` is the CMakeLists.txt of a
project that finds the installed package; `text` is what the block before it prints. Programs have to end with
status 0. Comments on the lines above a block say otherwise:

    <!-- not run: REASON -->             left out, and said so; a program is compiled all the same
    <!-- does not compile -->            what the compiler has to say follows as `text`
    <!-- ends with 3 -->                 or <!-- ends by SIGABRT -->
    <!-- with NAME=value -->             in the environment
    <!-- keys Q at: TEXT -->             pressed when TEXT is on the screen
    <!-- file NAME -->                   the text is also put into a file, for the blocks behind it
    <!-- output -->                      of the block before, also as: <!-- output as root -->
                                         and <!-- output as another user -->
    <!-- a drawing -->                   of a `text` that nothing prints; also <!-- a form -->

Blocks of one document are run in their order, in one directory."""
import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

from markdown import Document
from quoted import differences
from running import Run

LANGUAGES = ("cpp", "c", "sh", "cmake", "text")
NOTES = re.compile(r"not run: .+|does not compile|ends with \d+|ends by SIG\w+|with \w+=.*|keys .+ at: .+|file \S+|"
                   r"output|output as root|output as another user|a drawing|a form")


def note(block, beginning):
    """What follows the beginning in a comment above the block; None without such a comment."""
    for text in block.notes:
        if text.startswith(beginning):
            return text.removeprefix(beginning).strip()
    return None


class Blocks:
    """The blocks of one document, and what is wrong with them."""

    def __init__(self, configuration, name, document):
        self.configuration, self.name, self.document = configuration, name, document
        self.complaints = [f"{name}: {text}" for text in document.complaints]
        self.left_out, self.compiled, self.ran, self.quoted = [], 0, 0, 0
        self.runs = {}  # by number of block: what was printed

    def complain(self, block, text):
        self.complaints.append(f"{self.name}:{block.line}: {text}")

    def check_form(self):
        for block in self.document.blocks:
            if block.language and block.language not in LANGUAGES:
                self.complain(block, f"nobody tests a block of {block.language}")
            for text in block.notes:
                if not NOTES.fullmatch(text):
                    self.complain(block, f"a comment that means nothing: {text}")
            if block.language == "text" and not any(
                    text.startswith(("output", "a drawing", "a form")) for text in block.notes):
                self.complain(block, "is this printed by the block before it, or a drawing?")

    # --- programs

    def compile(self, number, block):
        """Gives the program, or what the compiler said."""
        directory = self.scratch / f"program{number}"
        directory.mkdir()
        source = directory / ("main." + block.language)
        source.write_text(block.text)
        settings = self.configuration[block.language]
        return directory, subprocess.run(
            [*settings["command"], source.name, "-o", "main", *settings["libraries"]],
            cwd=directory, capture_output=True, text=True)

    def compile_all(self):
        programs = {number: block for number, block in enumerate(self.document.blocks) if block.language in ("cpp", "c")}
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            results = pool.map(lambda item: self.compile(*item), programs.items())
            self.programs = dict(zip(programs, results))
        for number, (_, result) in self.programs.items():
            block = programs[number]
            self.compiled += 1
            if note(block, "does not compile") is not None:
                self.runs[number] = result.stderr
                if result.returncode == 0:
                    self.complain(block, "it compiles")
            elif result.returncode != 0:
                self.complain(block, "it does not compile:\n" + result.stderr)

    # --- runs

    def environment(self, block, more):
        keep = {name: value for name, value in os.environ.items() if not name.startswith(("KES", "XDG_"))}
        keep.update(HOME=str(self.scratch), TERM="dumb", LC_ALL="C.UTF-8", **more)
        for text in block.notes:
            if text.startswith("with "):
                variable, _, value = text.removeprefix("with ").partition("=")
                keep[variable] = value
        return keep

    def run(self, number, block, command, directory, more):
        keys = note(block, "keys ")
        if keys is not None:
            pressed, text = keys.split(" at: ")
            keys = (text, pressed)
        run = Run(command, directory, self.environment(block, more), keys)
        self.runs[number] = run.output
        self.ran += 1
        wanted = next((text for text in block.notes if text.startswith("ends ")), "ends with 0")
        if run.ending() != wanted:
            self.complain(block, f"it {run.ending()}, and not as said: {wanted}\n{run.output}")

    def run_program(self, number, block):
        directory, result = self.programs[number]
        if result.returncode == 0:
            self.run(number, block, [str(directory / "main")], self.scratch, {})

    def run_shell(self, number, block):
        self.run(number, block, ["bash", "-eu", "-o", "pipefail", "-c", block.text], self.scratch, {})

    def run_cmake(self, number, block):
        """Builds the project with the package that a block before it installed in ~/kes, and starts its program."""
        (self.scratch / "CMakeLists.txt").unlink(missing_ok=True)
        text = block.text
        if "project(" not in text:
            text = "cmake_minimum_required(VERSION 3.25)\nproject(mine CXX)\n" + text
        project = self.scratch / "project"
        project.mkdir(exist_ok=True)
        (project / "CMakeLists.txt").write_text(text)
        (project / "main.cpp").write_text((self.scratch / "main.cpp").read_text())
        settings = self.configuration["cmake"]
        steps = " && ".join([
            "cmake -G Ninja -S project -B project/build -DCMAKE_PREFIX_PATH=$HOME/kes "
            f"-DCMAKE_CXX_COMPILER={settings['compiler']} -DCMAKE_EXE_LINKER_FLAGS='{settings['flags']}'",
            "cmake --build project/build", "project/build/mine"])
        self.run(number, block, ["bash", "-eu", "-c", steps], self.scratch, {})

    def leave_out(self, block, reason):
        if block.language == "sh":
            result = subprocess.run(["bash", "-n"], input=block.text, capture_output=True, text=True)
            if result.returncode != 0:
                self.complain(block, "the shell does not understand it:\n" + result.stderr)
        self.left_out.append(f"{self.name}:{block.line}: {reason}")

    def run_all(self):
        for number, block in enumerate(self.document.blocks):
            if (name := note(block, "file ")) is not None:
                (self.scratch / name).write_text(block.text)
            reason = note(block, "not run: ")
            if reason is not None:
                self.leave_out(block, reason)
            elif note(block, "does not compile") is not None:
                pass
            elif block.language in ("cpp", "c"):
                self.run_program(number, block)
            elif block.language == "sh":
                self.run_shell(number, block)
            elif block.language == "cmake":
                self.run_cmake(number, block)
            elif block.language == "text":
                self.compare(number, block)

    def compare(self, number, block):
        who = note(block, "output")
        if who is None:
            return
        if who and who != ("as root" if os.geteuid() == 0 else "as another user"):
            self.left_out.append(f"{self.name}:{block.line}: the output {who}")
            return
        before = number - 1
        while before >= 0 and self.document.blocks[before].language == "text":
            before -= 1
        if before < 0 or before not in self.runs:
            self.complain(block, "nothing before it printed this")
            return
        self.quoted += 1
        found = differences(block.text, self.runs[before])
        if found:
            self.complain(block, "the output is another one:\n" + found)

    def check(self):
        self.check_form()
        with tempfile.TemporaryDirectory(prefix="documents") as scratch:
            self.scratch = pathlib.Path(scratch)
            self.lay_out()
            self.compile_all()
            self.run_all()

    def lay_out(self):
        """The directory that a reader works in: the sources, with the build of this run as build/release."""
        root = pathlib.Path(self.configuration["sources"])
        for entry in root.iterdir():
            if entry.name not in ("build", ".git"):
                (self.scratch / entry.name).symlink_to(entry)
        (self.scratch / "build").mkdir()
        (self.scratch / "build" / "release").symlink_to(self.configuration["build"])

    def summary(self):
        return (f"{self.name}: {len(self.document.blocks)} blocks, {self.compiled} compiled, {self.ran} run, "
                f"{self.quoted} outputs compared, {len(self.left_out)} left out")


def main(configuration_file, *names):
    configuration = json.loads(pathlib.Path(configuration_file).read_text())
    failed = False
    for name in names:
        blocks = Blocks(configuration, name, Document((pathlib.Path(configuration["sources"]) / name).read_text()))
        blocks.check()
        print(blocks.summary())
        print("".join(f"not run: {text}\n" for text in blocks.left_out), end="")
        print("\n".join(blocks.complaints))
        failed = failed or bool(blocks.complaints)
    return failed


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
