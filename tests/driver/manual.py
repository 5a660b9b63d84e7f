"""Holds kesdriver(8) against the program: manual.py ROOT. Every option and total has its place in the page."""
import pathlib
import re
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
    for count in re.findall(r'" ([a-z]+)[,)\\"]', source("Driver.cpp").split("printTotals")[1]):
        if count not in page:
            yield f"total {count}"


failures = [f"kesdriver(8) lacks {what}" for what in missing()]
print("\n".join(failures))
sys.exit(bool(failures))
