"""Holds the words of the documents against the sources: words.py CHECK CONFIGURATION. The checks:

    links      every link within the sources leads somewhere, and one that names a test to a file that has it
    names      files, functions, types, variables and settings that stand in code exist
    options    options in code behind the name of a program are options of that program
    citations  every name that the comparison cites from the header of a peer stands there, where it is installed,
               and every yes of ours leads to a test
    figures    every figure of the comparison is one of the benchmarks
    listed     every document with code blocks is among those whose blocks are tested, or has a test of its own"""
import json
import pathlib
import re
import subprocess
import sys

from markdown import Document

# Words with () or :: that are of the C library, the language or other projects.
FOREIGN = re.compile(r"^(?:std|pthread_|posix_|boost|folly|absl|Poco|uv_|apr_|g_|Q[A-Z]|reproc|IO[A-Z])")


class Tree:
    """The sources, and the documents among them."""

    def __init__(self, configuration):
        self.configuration = configuration
        self.root = pathlib.Path(configuration["sources"])
        self.documents = {}
        for path in sorted(self.root.rglob("*.md")):
            name = path.relative_to(self.root).as_posix()
            if not name.startswith(("build/", ".")):
                self.documents[name] = Document(path.read_text())

    def words_of_sources(self):
        words = set()
        for folder in ("sys", "kespal", "kesos", "pcaplib", "src", "iokit", "driver", "tests", "cmake", "bench", "fuzz",
                       "examples", "scripts"):
            for path in (self.root / folder).rglob("*"):
                # The tests of the documents have wrong words on purpose.
                if path.is_file() and path.parent.name != "documents" and path.suffix not in (".pcap", ".pcapng", ".md"):
                    words.update(re.findall(r"\w+", path.read_text(errors="replace")))
        for name in ("CMakeLists.txt", "CMakePresets.json"):
            words.update(re.findall(r"\w+", (self.root / name).read_text()))
        return words


def test_exists(file, test):
    """Whether a file has the test: Suite.Name of GoogleTest, or any text of another file."""
    text = file.read_text(errors="replace")
    suite, _, name = test.partition(".")
    if file.suffix in (".cpp", ".mm"):
        return re.search(rf"\bTEST(?:_F|_P)?\(\s*{re.escape(suite)}\s*,\s*{re.escape(name)}\s*\)", text) is not None
    return test in text


def links(tree):
    """Addresses on the web are not fetched."""
    for name, document in tree.documents.items():
        for line, target, title in document.links():
            if re.match(r"[a-z]+:", target):
                if not re.match(r"(?:https://[\w.-]+(?:/|$)|mailto:)", target):
                    yield f"{name}:{line}: no address on the web: {target}"
                continue
            place, _, anchor = target.partition("#")
            file = (tree.root / name).parent / place if place else tree.root / name
            if not file.exists():
                yield f"{name}:{line}: leads nowhere: {target}"
            elif title and not test_exists(file, title):
                yield f"{name}:{line}: {place} has no test {title}"
            elif anchor and file.suffix == ".md" and anchor not in set(Document(file.read_text()).anchors()):
                yield f"{name}:{line}: no such heading: {target}"


FOLDERS = ("sys", "kespal", "kesos", "pcaplib", "src", "iokit", "driver", "tests", "cmake", "bench", "fuzz", "examples",
           "scripts", "docs", "packaging", "samples")


def known_path(tree, document, word):
    """Whether a word that looks like a file of the sources is one. Headers are named as they are included."""
    places = [tree.root, (tree.root / document).parent]
    places += [tree.root / part / "include" for part in ("sys", "kespal", "kesos", "pcaplib")]
    places += [tree.root / "kespal", tree.root / "kespal" / "src", tree.root / "kespal" / "include" / "kespal"]
    return any(list(place.glob(word)) for place in places)


def names(tree):
    known = tree.words_of_sources()
    for name, document in tree.documents.items():
        for line, code in document.code_words():
            for word in re.findall(r"(?<![\w/.$~-])(?:" + "|".join(FOLDERS) + r")/[\w./*-]+", code):
                if re.search(r"\.\w+$|/$", word) or word.startswith("scripts/"):
                    if not known_path(tree, name, word.rstrip("/.")):
                        yield f"{name}:{line}: no such file: {word}"
            for word in re.findall(r"\bKES(?:PAL|OS)?_[A-Z0-9_]+\b", code):
                if word not in known:
                    yield f"{name}:{line}: nobody knows {word}"
            for word in re.findall(r"(?:[\w~]+::)*~?\w+(?=\()|(?:\w+::)+\w+", code):
                parts = [part.lstrip("~").removesuffix("_static") for part in word.split("::")]
                if not FOREIGN.match(word) and (unknown := [part for part in parts if part not in known]):
                    yield f"{name}:{line}: nobody knows {unknown[0]} of {word}"


def options_of(tree):
    """The options of each program, as its sources or its own words have them."""
    usage = subprocess.run([tree.configuration["kestrace"]], capture_output=True, text=True).stdout
    helped = subprocess.run([tree.configuration["kesdriver"], "--help"], capture_output=True, text=True)
    yield "kestrace", set(re.findall(r"(?<!\w)-[a-z]+", usage))
    yield "kesdriver", set(re.findall(r"(?<!\w)--[a-z]+", helped.stdout + helped.stderr))
    # What the analyser says to a program of this kind is more than its usage.
    sources = "".join(path.read_text() for path in (tree.root / "src/extcap").rglob("*.cpp"))
    yield "kestrace-extcap", set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", sources))
    for script in (tree.root / "scripts").iterdir():
        if script.is_file():
            yield "scripts/" + script.name, set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", script.read_text()))


def options(tree):
    known = dict(options_of(tree))
    if len(known["kestrace"]) < 5 or len(known["kesdriver"]) < 8:
        yield "the programs do not tell their options where this test looks for them"
    programs = "|".join(re.escape(program) for program in sorted(known, key=len, reverse=True))
    command = re.compile(rf"(?:^|[\s/;|&=])({programs})((?: +[^\s;|&>)]+)*)")
    for name, document in tree.documents.items():
        texts = list(document.code_words())
        texts += [(block.line, line) for block in document.blocks if block.language == "sh"
                  for line in block.text.splitlines()]
        for line, text in texts:
            for program, arguments in command.findall(text.split(" # ")[0]):
                for word in re.findall(r"(?<!\S)--?[a-zA-Z][\w-]*", arguments):
                    if word not in known[program]:
                        yield f"{name}:{line}: {program} has no option {word}"


HEADERS = [pathlib.Path(folder) for folder in ("/usr/include", "/usr/include/x86_64-linux-gnu/qt5",
                                               "/usr/include/aarch64-linux-gnu/qt5")]


def citations(tree):
    found, missing = 0, 0
    for name, document in tree.documents.items():
        for line, code in document.code_words():
            if citation := re.fullmatch(r"([\w+.-]+(?:/[\w+.-]+)*): (\w+)", code):
                header = next((folder / citation[1] for folder in HEADERS if (folder / citation[1]).is_file()), None)
                if header is None:
                    missing += 1
                elif not re.search(rf"\b{citation[2]}\b", header.read_text(errors="replace")):
                    yield f"{name}:{line}: {citation[1]} has no {citation[2]}"
                else:
                    found += 1
        if name == "docs/comparison.md":
            for line, text in enumerate(document.prose, 1):
                if re.match(r"\| [^|]+ \| yes\b", text):
                    yield f"{name}:{line}: a yes without its test"
    print(f"{found} citations are right, {missing} are of headers that are not installed here")


def figures(tree):
    """Rows of figures, by their peer and ratio."""
    measured = tree.documents["bench/README.md"].text.splitlines()
    rows = tree.documents["docs/comparison.md"].text.partition("\n## Figures\n")[2].partition("\n## ")[0]
    rows = [row for row in rows.splitlines() if row.startswith("| ") and "|---" not in row and "| ratio |" not in row]
    if len(rows) < 10:
        yield "the figures are not where this test looks for them"
    for row in rows:
        cells = row.partition("| ")[2].partition(" | ")[2]
        if not any(line.endswith("| " + cells) for line in measured):
            yield f"docs/comparison.md: not measured: {row}"


def listed(tree):
    tested = set(tree.configuration["documents"])
    others = "\n".join(path.read_text() for path in (tree.root / "tests").rglob("CMakeLists.txt")
                       if path.parent.name != "documents")
    for name, document in tree.documents.items():
        has_its_own = f"}}/{name}" in others
        if (document.blocks or document.complaints) and name not in tested and not has_its_own:
            yield f"{name}: has code, and no test of its blocks"


def main(check, configuration):
    tree = Tree(json.loads(pathlib.Path(configuration).read_text()))
    complaints = list(globals()[check](tree))
    print("\n".join(complaints))
    print(f"{len(tree.documents)} documents, {len(complaints)} complaints")
    return bool(complaints)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
