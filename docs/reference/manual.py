"""manual.py FOLDER: writes the manual pages in section 3 of the flat layer into a folder, one for each header and a
reference to it for each function, all from the comments of the headers."""
import pathlib
import re
import sys
import textwrap

ROOT = pathlib.Path(__file__).resolve().parents[2]
HEADERS = ROOT / "kesos/include/kesos"
OVERVIEW = ROOT / "docs/man/kesos.7"
# Without the header that only includes the others, and those without a function.
PAGES = sorted(path.stem for path in HEADERS.glob("*.h")
               if path.stem != "kesos" and re.search(r"^\w[^\n]*\(", path.read_text(), re.MULTILINE))


def page_name(header):
    return "kesos_" + header


def subjects():
    """What each page is about, from the titles of the reference."""
    return dict(re.findall(r"@defgroup (kesos_\w+) ([^\n]+)", (ROOT / "docs/reference/groups.dox").read_text()))


# --- what a header says

class Entry:
    """A comment and the declarations that it speaks for."""

    def __init__(self, comment, code):
        self.comment = comment
        self.declarations = re.findall(r"[^;{]*(?:\{[^}]*\}[^;]*)?;",
                                       re.sub(r"^#[^\n]*\n|__attribute__\(\(.*\)\)\n", "", code, flags=re.MULTILINE))
        self.macros = re.findall(r"^#define (\w+) (.*)$", code, flags=re.MULTILINE)

    def functions(self):
        for declaration in self.declarations:
            found = re.fullmatch(r"\s*((?!typedef)[\w\s*]+?[\s*])(\w+)\((.*)\);", declaration, re.DOTALL)
            if found:
                yield found[1].strip(), found[2], split_arguments(found[3])

    def name(self):
        """Of a macro, of the values of an enumeration, or the last word of a type."""
        if self.macros:
            return self.macros[0][0]
        values = re.findall(r"(\w+) =", self.declarations[-1])
        return " , ".join(values) or re.search(r"(\w+)\)?(?:\([^()]*\))?;$", self.declarations[-1])[1]


def split_arguments(text):
    """At the commas that stand in no parentheses."""
    return [" ".join(part.split()) for part in re.split(r",(?![^()]*\))", text)]


def plain(comment):
    return "\n".join(re.sub(r"^ ?\* ?", "", line) for line in comment.split("\n")).strip()


def read_header(header):
    """Its version, the text at its head, and its entries."""
    text = (HEADERS / f"{header}.h").read_text()
    since = re.match(r"#pragma once  // since (\S+)", text)[1]
    text = re.sub(r"#ifndef __cplusplus\n.*?#endif\n|#ifdef __\w+\n|#endif\n|extern \"C\" \{\n|^\w+_(?:BEGIN|END)\n", "",
                  text, flags=re.DOTALL | re.MULTILINE)
    head, entries = "", []
    for found in re.finditer(r"^/\*(\*?)((?:[^*]|\*(?!/))*)\*/\n((?:(?!/\*|\n).*\n)*)", text, re.MULTILINE):
        if found[1]:
            entries.append(Entry(plain(found[2]), found[3]))
        else:
            head += plain(found[2])
    return since, head, entries


# --- what a page says

def roff(text):
    """Text for a line: names in bold, what the caller gives in italics."""
    text = text.replace("\\", "\\e").replace("--", "\\-\\-")
    text = re.sub(r"`([^`]+)`", r"\\fI\1\\fP", text)
    text = re.sub(r"\b(KesOs\w+|parseProcessCommandline|vSplitFileName|\w+_kes|KESOS_\w+)\b", r"\\fB\1\\fP", text)
    text = re.sub(r"\b([a-z]+)\(\)", r"\\fB\1\\fP()", text)
    return re.sub(r"\b(\w+)\.h\b", lambda match: page_name(match[1]) + "(3)" if match[1] in PAGES else match[0], text)


def sentences(text):
    """Each from a line of its own, as the language of manual pages wants it."""
    for sentence in re.split(r"(?<=[.!?])\s+(?=\S)|(?<=[.!?][\")])\s+(?=\S)", " ".join(text.split())):
        for line in textwrap.wrap(roff(sentence), 78, break_long_words=False, break_on_hyphens=False):
            yield "\\&" + line if line.startswith((".", "'")) else line


def paragraphs(text):
    """A comment in the language of manual pages: paragraphs, lists with dashes, and tables as they stand."""
    for number, part in enumerate(re.split(r"\n\s*\n", text)):
        if number > 0 and not part.startswith("    "):
            yield ".Pp"
        if part.startswith("    "):
            yield from (".Bd -literal", *textwrap.dedent(part).replace("\\", "\\e").split("\n"), ".Ed")
            continue
        before, *items = re.split(r"^- ", part, flags=re.MULTILINE)
        yield from sentences(before)
        if items:
            yield ".Bl -dash"
            for item in items:
                yield from (".It", *sentences(item))
            yield ".El"


def synopsis(entries):
    for entry in entries:
        yield from (f".Fd #define {name} {value}" for name, value in entry.macros)
        functions = list(entry.functions())
        for result, name, arguments in functions:
            yield f".Ft {quoted(result)}"
            yield " ".join([".Fn", name, *(f'"{argument}"' for argument in arguments)])
        if not functions:
            for declaration in entry.declarations:
                yield from (".Bd -literal", *declaration.replace("/**<", "/*").strip().split("\n"), ".Ed", ".Pp")


def quoted(text):
    return f'"{text}"' if " " in text else text


def descriptions(entries):
    yield ".Bl -tag -width Ds"
    for entry in entries:
        names = [name for _, name, _ in entry.functions()]
        for name in names[:-1]:
            yield f".It Fn {name}"
        if names:
            yield f".It Fn {names[-1]}"
        else:
            yield f".It Vt {entry.name()}"
        yield from paragraphs(entry.comment)
    yield ".El"


def page(header):
    since, head, entries = read_header(header)
    names = [name for entry in entries for _, name, _ in entry.functions()]
    date = re.search(r"^\.Dd .*$", OVERVIEW.read_text(), re.MULTILINE)[0]
    others = [".Xr " + page_name(other) + " 3" for other in PAGES if other != header]
    subject = subjects()[page_name(header)]
    lines = [date, f".Dt {page_name(header).upper()} 3", ".Os", ".Sh NAME",
             *(f".Nm {name} ," for name in names[:-1]), f".Nm {names[-1]}", f".Nd {subject[0].lower() + subject[1:]}",
             ".Sh LIBRARY", "The flat interface to the operating system", ".Pq libkesos , Fl lkesos",
             ".Sh SYNOPSIS", f".In kesos/{header}.h", *synopsis(entries),
             ".Sh DESCRIPTION", *paragraphs(head), *descriptions(entries),
             ".Sh RETURN VALUES", "Where nothing else is said, a function returns 1 for success and 0 for failure.",
             ".Sh SEE ALSO", *(other + " ," for other in others), ".Xr kesos 7",
             ".Sh HISTORY", f"Since version {since}."]
    return names, re.sub(r"\.Pp\n(?=\.Bd)", "", "\n".join(lines)) + "\n"


def main(folder):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for header in PAGES:
        names, text = page(header)
        (folder / f"{page_name(header)}.3").write_text(text)
        for name in names:
            (folder / f"{name}.3").write_text(f".so man3/{page_name(header)}.3\n")


if __name__ == "__main__":
    main(sys.argv[1])
