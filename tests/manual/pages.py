"""Holds the manual pages against the sources: pages.py RULE ROOT MAN3 [ARGUMENT...]. MAN3 is where the pages of
section 3 were written to."""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

# How the names of our own pages begin; whether those of others are installed here says nothing of ours.
OWN = ("kes", "Kes", "pcaplib")


class Pages:
    def __init__(self, root, generated):
        self.root = root
        self.files = {f"{path.stem}({path.suffix[1:]})": path for folder in (root / "docs/man", generated)
                      for path in sorted(folder.iterdir())}
        self.texts = {name: path.read_text() for name, path in self.files.items()}
        # What only leads to another page is no page.
        self.whole = {name for name, text in self.texts.items() if not text.startswith(".so ")}

    def source(self, name):
        return (self.root / name).read_text()


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=False, **options)


def every_page_is_clean(pages):
    tools = [tool for tool in ("mandoc", "groff") if shutil.which(tool)]
    if len(tools) < 2:
        print("Skipped\nmandoc or groff is not installed")
        return
    for name in sorted(pages.whole):
        for line in run("mandoc", "-Tlint", pages.files[name]).stdout.splitlines():
            # Whether the pages referred to are installed on this machine says nothing of this one.
            if "referenced manual not found" not in line:
                yield line
        yield from run("groff", "-ww", "-mdoc", "-Tutf8", pages.files[name]).stderr.splitlines()


def every_page_that_is_referred_to_is_there(pages):
    for name, text in pages.texts.items():
        for other, section in re.findall(r"^\.(?:It )?Xr (\S+) (\d)", text, re.MULTILINE):
            if other.startswith(OWN) and f"{other}({section})" not in pages.texts:
                yield f"{name} refers to {other}({section}), which is not there"
        for other in re.findall(r"\b(kes\w+\([1-9]\))", text):
            if other not in pages.texts:
                yield f"{name} refers to {other}, which is not there"
        if text.startswith(".so ") and not (pages.files[name].parent.parent / text.split()[1]).is_file():
            yield f"{name} leads to {text.split()[1]}, which is not there"
    for name in sorted(pages.whole):
        if name.startswith("kesos_") and f".It Xr {name[:-3]} 3" not in pages.texts["kesos(7)"]:
            yield f"kesos(7) lacks {name}"


def every_function_of_the_flat_layer_has_a_page(pages, library):
    headers = "".join(path.read_text() for path in (pages.root / "kesos/include/kesos").glob("*.h"))
    count = 0
    for line in run("nm", "--defined-only", "--extern-only", library).stdout.splitlines():
        symbol = re.match(r"\w+ T (?!_Z)(\w+)$", line)
        if symbol is None or not re.search(rf"\b{symbol[1]}\(", headers):
            continue
        count += 1
        if f"{symbol[1]}(3)" not in pages.texts:
            yield f"{symbol[1]}(3) is not there"
        elif not any(f"\n.It Fn {symbol[1]}\n" in pages.texts[name] for name in pages.whole):
            yield f"{symbol[1]} is described nowhere"
    if count < 60:
        yield f"{library} has only {count} functions: this test looks in the wrong place"


def fields(page, section):
    """Offset, size and text of each field in a table; several numbers of one size share a row."""
    table = re.search(rf"\.Ss {section}\n.*?\.El", page, re.DOTALL)[0]
    for offset, sizes, text in re.findall(r"^\.It (\d+) Ta ([\d +]+) Ta .* Ta (.*)$", table, re.MULTILINE):
        place = int(offset)
        for size, value in zip(sizes.split(" + "), text.split(", ") if "+" in sizes else [text]):
            yield place, int(size), value
            place += int(size)


def the_capture_file_is_described_as_it_is_written(pages):
    page, header = pages.texts["kestrace(5)"], pages.source("pcaplib/src/FileFormat.h")
    sizes = {"uint16_t": 2, "uint32_t": 4}
    for struct, section in (("FileHeader", "File header"), ("RecordHeader", "Records")):
        offset, told = 0, list(fields(page, section))
        body = re.search(rf"struct {struct} \{{(.*?)\}};", header, re.DOTALL)[1]
        members = re.findall(r"std::(\w+) \w+(?: = (\w+))?;", body)
        for (kind, value), (place, size, text) in zip(members, told, strict=True):
            if (place, size) != (offset, sizes[kind]) or not text.startswith(value):
                yield (f"kestrace(5) has {size} bytes at {place} with {text}, "
                       f"{struct} {sizes[kind]} at {offset} with {value}")
            offset += sizes[kind]
    numbers = re.findall(r"\.linkType = (\d+)", pages.source("pcaplib/src/capture.cpp"))
    if len(numbers) != 3:
        yield "the link types are not where this test looks for them"
    for number in numbers:
        if not re.search(rf"\b(?:type|writes|and|Ta) {number}\b", page):
            yield f"kestrace(5) lacks link type {number}"


def every_word_of_a_script_is_described(pages):
    page = pages.texts["kesdriver(5)"]
    words = re.findall(r'^    \{"([a-z-]+)",', pages.source("driver/src/ScriptParser.cpp"), re.MULTILINE)
    names = re.search(r"callNames\[\] = \{(.*?)\}", pages.source("driver/src/Records.h"), re.DOTALL)
    calls = re.findall(r'"([a-z]+)"', names[1]) if names else []
    words += re.findall(r'== "(\w+)"', pages.source("driver/src/ScriptParser.cpp"))
    if len(words) < 20 or len(calls) < 7:
        yield "the words of scripts are not where this test looks for them"
    for word in words + calls:
        if not re.search(rf"^\.It Cm {word}\b", page, re.MULTILINE):
            yield f"kesdriver(5) lacks {word}"
    for word in re.findall(r"^\.It Cm ([a-z-]+)", page, re.MULTILINE):
        if word not in words + calls + ["x"]:
            yield f"kesdriver(5) has {word}, which no script may say"


def every_variable_and_header_of_the_platform_library_is_there(pages):
    page = pages.texts["kespal(7)"]
    told = set(re.findall(r"^\.It Ev (.*)$", page, re.MULTILINE))
    told = {name for line in told for name in re.split(r" ,? ?", line)}
    known = {name for path in (pages.root / "kespal/src").rglob("*.cpp")
             for name in re.findall(r'"((?:KES[A-Z]*_|NO_)[A-Z_]+)"', path.read_text())}
    # The name of the directory of catalogues is made of two parts.
    for name in sorted(known - told - {"KES_I18N"}):
        yield f"kespal(7) lacks {name}"
    for name in sorted(name for name in told - known if name not in ("KES_I18N_DIR", "TERM")):
        yield f"kespal(7) has {name}, which nothing looks at"
    for page_name in ("kespal(7)", "kesos(7)", "pcaplib(7)"):
        for header in re.findall(r"\b((?:kespal|kesos|pcaplib)/[\w/.]+\w/?)", pages.texts[page_name]):
            if not (pages.root / header.split("/")[0] / "include" / header).exists():
                yield f"{page_name} names {header}, which is not there"


def every_example_compiles(pages, cc, cxx):
    for name in ("kespal(7)", "kesos(7)", "pcaplib(7)"):
        example = re.search(r"\.Sh EXAMPLES\n.*?\.Bd[^\n]*\n(.*?)\.Ed", pages.texts[name], re.DOTALL)
        language = "c11" if name == "kesos(7)" else "c++20"
        with tempfile.NamedTemporaryFile("w", suffix=".c" if language == "c11" else ".cpp") as unit:
            unit.write(example[1].replace("\\e", "\\"))
            unit.flush()
            folders = [f"-I{pages.root / part / 'include'}" for part in ("kespal", "kesos", "pcaplib")]
            compiler = cc if language == "c11" else cxx
            yield run(compiler, "-std=" + language, "-fsyntax-only", "-Wall", "-Wextra", "-Werror", *folders,
                      unit.name).stderr


def main(rule, root, generated, *arguments):
    pages = Pages(pathlib.Path(root), pathlib.Path(generated))
    complaints = [line for line in globals()[rule](pages, *arguments) if line]
    print("\n".join(complaints))
    return 1 if complaints else 0


sys.exit(main(*sys.argv[1:]))
