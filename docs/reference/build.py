"""build.py OUTPUT: builds the reference of the libraries below the folder OUTPUT, and prints what Doxygen complains
about, each with the place in the sources; status 1 when there is anything."""
import os
import pathlib
import re
import shutil
import subprocess
import sys

from filter import Filter
from groups import group_of

ROOT = pathlib.Path(__file__).resolve().parents[2]
LIBRARIES = ("kespal", "kesos", "pcaplib")


def version():
    return re.search(r"project\(kes VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())[1]


def words_for_compilers():
    """Macros that say nothing to a reader: what is exported, and which lock guards what."""
    texts = [path.read_text() for path in (ROOT / "kespal/include/kespal/thread/Annotations.h",
                                           *ROOT.glob("*/include/*/[Ee]xport.h"))]
    names = re.findall(r"^#define (\w+)(\()?", "\n".join(texts), re.MULTILINE)
    return " ".join(f'"{name}(...)="' if arguments else f'"{name}="' for name, arguments in names)


def write_headers(folder):
    for library in LIBRARIES:
        include = ROOT / library / "include"
        for path in sorted(include.rglob("*.h*")):
            header = path.relative_to(include)
            if group_of(header.as_posix()) is None:
                sys.exit(f"{header}: in no group of the reference; add it to docs/reference/groups.py")
            (folder / header).parent.mkdir(parents=True, exist_ok=True)
            lines = Filter(header.as_posix(), path.read_text().split("\n")).run()
            (folder / header).write_text("\n".join(lines))


def introduction(example):
    """The comment at the head of an example."""
    text = example.read_text()
    comment = re.match(r"(?://.*\n)+", text)
    if comment:
        return re.sub(r"^// ?", "", comment[0], flags=re.MULTILINE)
    return re.sub(r"^ \* ?", "", re.match(r"/\* ([^*]*(?:\n \*[^*/]*)*)\*/", text)[1], flags=re.MULTILINE)


def first_sentence(text):
    return " ".join(re.split(r"(?<=\.)\s|:\n|\n\n", text)[0].split()).rstrip(":.")


def write_examples(file):
    examples = [path for path in sorted((ROOT / "examples").iterdir()) if path.suffix in (".c", ".cpp")]
    rows = [f"| @ref {path.name} | {first_sentence(introduction(path))} |" for path in examples]
    table = "\n".join(["| program | what it does |", "|---|---|", *rows])
    pages = [f"/** @page programs Examples\n\n{table}\n*/"] + [f"/** @example {path.name} */" for path in examples]
    file.write_text("\n".join(pages))


def main(output):
    output = pathlib.Path(output).resolve()
    for part in ("headers", "html", "xml"):
        shutil.rmtree(output / part, ignore_errors=True)
    write_headers(output / "headers")
    write_examples(output / "examples.dox")
    environment = {**os.environ, "LC_ALL": "C.UTF-8", "OUTPUT": str(output), "VERSION": version(),
                   "WORDS": words_for_compilers()}
    doxygen = subprocess.run(["doxygen", "docs/reference/Doxyfile"], cwd=ROOT, env=environment, capture_output=True,
                             text=True, check=False)
    place = re.compile(re.escape(f"{output}/headers/") + r"(\w+)/")
    # The results of a search are pages of their own.
    with (output / "html/search/search.css").open("a") as style:
        style.write((ROOT / "docs/reference/search.css").read_text())
    for complaint in dict.fromkeys(doxygen.stderr.splitlines()):
        print(place.sub(r"\1/include/\1/", complaint).replace(f"{ROOT}/", ""))
    return doxygen.returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
