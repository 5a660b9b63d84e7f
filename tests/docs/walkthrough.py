"""Runs the commands of a document and holds what they print against what stands there:
walkthrough.py DOCUMENT PROGRAMS SCRIPTS SAMPLES [--accept]

In its indented blocks "$ " begins a command, "> " goes on with it, and all else is output, standard error included.
The commands run in one shell, in a folder and a home of their own. Times and durations may differ. --accept writes
the outputs into the document, for review."""
import os
import pathlib
import re
import subprocess
import sys
import tempfile

DIFFERING = [(r"\b\d\d:\d\d:\d\d\b", "TIME"), (r"(?<![\d.])\d+\.\d{6,9}(?!\d)", "SECONDS"),
             (r"\d+ (calls found none)", r"SOME \1"), (r"(wait for the reader) \d+", r"\1 SOME"), (r" +", " ")]


def neutral(text):
    for pattern, name in DIFFERING:
        text = re.sub(pattern, name, text)
    return text.rstrip()


def parse(document):
    """Steps: the lines before a command, the command, and its output."""
    steps, lines = [], []
    for line in document.splitlines():
        if line.startswith("    $ "):
            steps.append((lines, [line], []))
            lines = []
        elif line.startswith("    > ") and steps and not lines and not steps[-1][2]:
            steps[-1][1].append(line)
        elif line.startswith("    ") and steps and not lines:
            steps[-1][2].append(line)
        else:
            lines.append(line)
    return steps, lines


class Shell:
    """One shell for all commands, which tells after each that it is done."""

    END = "--- the command is done ---"

    def __init__(self, folder, environment):
        self.process = subprocess.Popen(["bash"], cwd=folder, env=environment, text=True, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.run("set -m")  # jobs of their own, as by hand

    def run(self, command):
        self.process.stdin.write(f"{command}\necho '{self.END}'\n")
        self.process.stdin.flush()
        output = []
        for line in self.process.stdout:
            if line.rstrip("\n").endswith(self.END):
                return output
            output.append(line.rstrip("\n"))
        raise SystemExit(f"the shell ended with: {command}")

    def end(self):
        self.process.stdin.close()
        self.process.wait()


def play(steps, programs, scripts, samples):
    with tempfile.TemporaryDirectory() as folder:
        environment = os.environ | {"PATH": f"{programs}:{scripts}:/usr/bin:/bin", "HOME": folder, "TERM": "dumb",
                                    "KES_SAMPLES": samples, "LC_ALL": "C.UTF-8", "TZ": "UTC"}
        environment.pop("XDG_CONFIG_HOME", None)
        shell = Shell(folder, environment)
        for _, command, _ in steps:
            yield shell.run("\n".join(line[6:] for line in command))
        shell.run("kill $(jobs -p) 2>/dev/null; wait")
        shell.end()


def main(document, programs, scripts, samples, accept=None):
    path = pathlib.Path(document)
    steps, rest = parse(path.read_text())
    outputs = list(play(steps, programs, scripts, samples))
    if accept:
        lines = []
        for (before, command, _), output in zip(steps, outputs):
            lines += before + command + ["    " + line for line in output]
        path.write_text("\n".join(lines + rest) + "\n")
        return 0
    failures = 0
    for (_, command, expected), output in zip(steps, outputs):
        wanted, found = (neutral("\n".join(lines)) for lines in ([line[4:] for line in expected], output))
        if wanted != found:
            failures += 1
            print(f"{command[0]}\n--- the document says\n{wanted}\n--- it was\n{found}")
    print(f"{len(steps)} commands, {failures} not as the document says")
    return 1 if failures or len(steps) < 5 else 0


sys.exit(main(*sys.argv[1:]))
