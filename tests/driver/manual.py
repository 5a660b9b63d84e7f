"""Holds kesdriver(8) against the program: manual.py ROOT. Every option, word of a script, environment variable
and total has its place in the page, and the page is clean."""
import pathlib
import re
import shutil
import subprocess
import sys

root = pathlib.Path(sys.argv[1])
page_file = root / "docs/man/kesdriver.8"
page = page_file.read_text()


def source(name):
    return (root / "driver/src" / name).read_text()


def missing():
    for option in sorted(set(re.findall(r'"(--[a-z]+)"', source("Options.cpp")))):
        if not re.search(rf"^\.It Fl Fl {option[2:]}\b", page, re.MULTILINE):
            yield f"option {option}"
    words = re.findall(r'^    \{"([a-z-]+)",', source("ScriptParser.cpp"), re.MULTILINE)
    names = re.search(r"callNames\[\] = \{(.*?)\}", source("Records.h"), re.DOTALL)
    calls = re.findall(r'"([a-z]+)"', names[1]) if names else []
    if len(words) < 20 or len(calls) < 7:
        yield "the words of scripts, which are not where this test looks for them"
    for word in words + calls:
        if not re.search(rf"^\.It Cm {word}\b", page, re.MULTILINE):
            yield f"script word {word}"
    for count in re.findall(r'" ([a-z]+)[,)\\"]', source("Driver.cpp").split("printTotals")[1]):
        if count not in page:
            yield f"total {count}"


def lint():
    if not shutil.which("mandoc"):
        print("mandoc is not installed: the page is not linted")
        return
    report = subprocess.run(["mandoc", "-Tlint", page_file], capture_output=True, text=True).stdout
    # Whether the pages referred to are installed on this machine says nothing of this one.
    yield from (line for line in report.splitlines() if "referenced manual not found" not in line)


failures = [f"kesdriver(8) lacks {what}" for what in missing()] + list(lint())
print("\n".join(failures))
sys.exit(bool(failures))
