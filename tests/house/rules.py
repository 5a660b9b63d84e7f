"""The rules of the house, each a test: rules.py RULE [COMPILER...] or rules.py RULE LIBRARY..."""
import concurrent.futures
import fnmatch
import os
import re
import sys
import tempfile

from layers import LAYERS
from sources import INCLUDE_FOLDERS, ROOT, includes, public_headers, run, sources

PRODUCTS = ("sys", "kespal", "kesos", "pcaplib", "src")


def layer_of(header):
    for number, (_, patterns) in enumerate(LAYERS):
        for pattern in patterns:
            if fnmatch.fnmatch(header, pattern + "*" if pattern.endswith("/") else pattern):
                return number
    return None


def every_header_includes_only_its_own_layer_or_lower_ones():
    for header in public_headers("kespal"):
        own = layer_of(header.removeprefix("kespal/"))
        if own is None:
            yield f"{header}: in no layer; add it to tests/house/layers.py"
            continue
        for included in includes("kespal/include/" + header):
            if not included.startswith("kespal/"):
                yield f"{header}: includes {included}, which is not the platform library's"
                continue
            other = layer_of(included.removeprefix("kespal/"))
            if other is not None and other > own:
                yield f"{header} ({LAYERS[own][0]}) includes {included} ({LAYERS[other][0]})"


def libraries_know_nothing_of_what_stands_on_them():
    forbidden = {"kespal": ("kesos/", "pcaplib/", "IOKit/"), "kesos": ("pcaplib/", "IOKit/"),
                 "pcaplib": ("kesos/", "IOKit/"), "iokit": ("kespal/", "kesos/", "pcaplib/"),
                 "driver": ("kespal/", "kesos/", "pcaplib/"),
                 "sys": ("kespal/", "kesos/", "pcaplib/", "IOKit/", "wire/")}
    for part, others in forbidden.items():
        for path in sources(part):
            for included in includes(path):
                if included.startswith(others):
                    yield f"{path}: includes {included}"


def no_header_includes_itself_by_way_of_others():
    known = {header: folder / header for folder in INCLUDE_FOLDERS if folder.is_dir()
             for header in (path.relative_to(folder).as_posix() for path in folder.rglob("*.h*"))}
    finished, trail = set(), []

    def visit(header):
        if header in trail:
            yield "cycle: " + " -> ".join(trail[trail.index(header):] + [header])
            return
        if header in finished or header not in known:
            return
        trail.append(header)
        for included in includes(known[header].relative_to(ROOT)):
            yield from visit(included)
        finished.add(trail.pop())

    for header in sorted(known):
        yield from visit(header)


def no_system_is_named_outside_the_system_folders():
    systems = re.compile(r"^\s*#\s*(?:el)?if.*\b(__APPLE__|__MACH__|__linux__|__linux|__gnu_linux__|__GLIBC__|"
                         r"__unix__|__FreeBSD__|_WIN32|TARGET_OS_\w+)\b", re.MULTILINE)
    for path in sources(*PRODUCTS, "driver", "tests", "examples", "bench", "fuzz"):
        if "os" in path.parts:
            continue
        for match in systems.finditer((ROOT / path).read_text()):
            yield f"{path}: {match.group(0).strip()}"


def no_constant_begins_with_a_k():
    # clang-tidy holds the spelling, but takes this one for camel case. Names of the platform's begin with kIO.
    constant = re.compile(r"\b(?:constexpr|const|enum)\b[^;()=]*?\b(k[A-Z]\w*)\s*(?:\[[^\]]*\]\s*)*(?:=|\{|;)")
    for path in sources(*PRODUCTS, "iokit", "driver", "tests", "bench", "fuzz", "examples"):
        for match in constant.finditer((ROOT / path).read_text()):
            if not match.group(1).startswith("kIO"):
                yield f"{path}: {match.group(1)}"


def compile_together(compiler, language, headers):
    with tempfile.NamedTemporaryFile("w", suffix=".c" if language == "c11" else ".cpp") as unit:
        # A header may have nothing but macros, and a unit needs a declaration.
        unit.write("".join(f'#include "{header}"\n' for header in headers) + "extern int declared;\n")
        unit.flush()
        folders = [f"-I{folder}" for folder in INCLUDE_FOLDERS[:3]]
        result = run(compiler, "-std=" + language, "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow",
                     "-Wconversion", "-Werror", *folders, unit.name)
    return f"{headers[0]} as {language}:\n{result.stderr}" if result.returncode != 0 else None


def compile_each(compiler, language, units):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        yield from filter(None, pool.map(lambda headers: compile_together(compiler, language, headers), units))


# The halves of another system are its own business.
FOREIGN = "/os/linux/" if sys.platform == "darwin" else "/os/darwin/"


def headers_here(*libraries, suffixes=(".h", ".hpp")):
    return [header for library in libraries for header in public_headers(library)
            if header.endswith(suffixes) and FOREIGN not in header]


def first_include(path):
    found = re.search(r'^\s*#\s*include\s+["<]([^">]+)', (ROOT / path).read_text(), re.MULTILINE)
    return found and found.group(1)


def every_public_header_compiles_alone_and_twice(_, cxx):
    headers = headers_here("kespal", "kesos", "pcaplib")
    # What a source of the build begins with has shown there that it needs nothing before it.
    shown = {first_include(path) for path in sources(*PRODUCTS) if path.suffix == ".cpp" and FOREIGN not in f"/{path}"}
    alone = [[header, header] for header in headers if header not in shown]
    yield from compile_each(cxx, "c++20", [headers * 2, *alone])


def every_flat_header_compiles_as_c(cc, _):
    yield from compile_each(cc, "c11", [[header] * 2 for header in headers_here("kesos", suffixes=".h")])


def every_flat_header_compiles_as_an_older_cpp(_, cxx):
    yield from compile_each(cxx, "c++17", [[header] * 2 for header in headers_here("kesos")])


# Names that the flat interfaces export besides those of namespace kes.
FLAT_NAMES = re.compile(
    r"KesOs\w+|\w+_kes|strclear|strupr|strlwr|setTimespec|vSplitFileName|fShutdown|g_kesos_inittime|"
    r"ipc_default_(?:mode|uid|gid)|initSemCounter|sem_counter|kesos_shm|parseProcessCommandline|"
    r"_async_child_cleaner|DumpOpen|DumpPacket|DumpClose|cap_types")
OWN_NAMES = re.compile(r"(?:(?:vtable|typeinfo|typeinfo name|VTT|guard variable|construction vtable|thread-local \w+ \w+|"
                       r"template parameter object|reference temporary #\d+|non-virtual thunk|virtual thunk)(?: for| to)? )*kes::")


def no_library_exports_a_foreign_name(*archives):
    for archive in archives:
        for line in run("nm", "-C", "--defined-only", "--extern-only", archive).stdout.splitlines():
            # Weak symbols are instantiations of the standard library's templates and inline functions.
            symbol = re.match(r"[0-9a-f]+ ([A-Z]) (.+)", line)
            if symbol is None or symbol.group(1) in "WVu":
                continue
            name = symbol.group(2)
            if not OWN_NAMES.match(name) and not FLAT_NAMES.fullmatch(name.split("(")[0]):
                yield f"{os.path.basename(archive)}: {name}"


def dynamic_symbols(library):
    """Mangled name -> demangled name of what a shared library exports."""
    def names(*options):
        lines = run("nm", "-D", "--defined-only", *options, library).stdout.splitlines()
        return [line.split(" ", 2)[2].split("@")[0] for line in lines if line.split()[1] != "A"]
    return dict(zip(names(), names("-C")))


def without_arguments(name):
    """kes::A::f of "kes::A<int>::f[abi:x](char) const", of "vtable for kes::A::f", and so on."""
    while (bare := re.sub(r"<[^<>]*>|\[abi:\w+\]", "", name)) != name:
        name = bare
    name = re.sub(r"^(?:[a-z -]+ (?:for|to) )+", "", name)
    return name.split("(")[0]


def is_documented(name, text):
    """Whether public headers define the classes that a name is of, and name the rest."""
    *scopes, own = [part for part in name.split("::") if part]
    classes = [part for part in scopes if not part[0].islower()]
    return all(defines_class(part, text) for part in classes) and (
        re.search(rf"(?<!\w){re.escape(own.lstrip('~'))}\b", text) is not None or own.startswith("operator"))


def is_method(name, text):
    classes = [part for part in name.split("::")[:-1] if not part[0].islower()]
    return bool(classes) and all(defines_class(part, text) for part in classes)


def is_free_function(name, text):
    """Whether a public header opens the namespace of a function and declares it there, at the left margin."""
    scope, _, own = name.rpartition("::")
    return ((not scope or re.search(rf"^namespace {scope} {{", text, re.MULTILINE) is not None) and
            re.search(rf"^[\w:].*\b{re.escape(own)}\s*\(", text, re.MULTILINE) is not None)


def defines_class(name, text):
    return re.search(rf"\b(?:class|struct)\b[^;{{}}]*\b{name}\b[^;{{}}]*{{", text) is not None


def the_shared_libraries_export_what_public_headers_declare(*files):
    for archive, library in zip(files[::2], files[1::2]):
        part = os.path.basename(archive)[3:].removesuffix(".a")
        headers = [f"{part}/include/{header}" for header in public_headers(part)]
        whole = "\n".join((ROOT / header).read_text() for header in headers)
        exported = dynamic_symbols(library)
        for name in sorted(set(exported.values())):
            bare = without_arguments(name)
            of_type = re.match(r"(?:vtable|VTT|typeinfo|typeinfo name|construction vtable) for ", name)
            if not (is_documented(bare, whole) and (not of_type or defines_class(bare.split("::")[-1], whole))):
                yield f"{os.path.basename(library)}: exports {name}, which no public header declares"
        texts = [public_part(header) for header in headers]
        for line in run("nm", "--defined-only", "--extern-only", archive).stdout.splitlines():
            symbol = re.match(r"[0-9a-f]+ [TDB] (\S+)", line)
            if symbol is None or symbol[1] in exported:
                continue
            name = without_arguments(run("c++filt", symbol[1]).stdout.strip())
            if is_declared(name, texts) and (is_method(name, whole) or is_free_function(name, whole)):
                yield f"{os.path.basename(library)}: does not export {name}, which a public header declares"


def every_public_header_says_what_it_exports():
    for part in ("kespal", "kesos", "pcaplib"):
        mark = {"kespal": "KES"}.get(part, part.upper()) + "_EXPORT_"
        for header in public_headers(part):
            text = (ROOT / part / "include" / header).read_text()
            declares = re.search(r'^(?:namespace|extern "C")', text, re.MULTILINE)
            is_compiled_in = header.endswith(".hpp")  # whole, into the programs that include it
            if declares and not is_compiled_in and not re.search(rf"^{mark}BEGIN$.*^{mark}END$", text, re.MULTILINE | re.DOTALL):
                yield f"{part}/include/{header}: its declarations stand outside of {mark}BEGIN and {mark}END"


def every_public_header_has_an_age_and_a_group():
    sys.path.append(str(ROOT / "docs/reference"))
    from groups import group_of
    for library in ("kespal", "kesos", "pcaplib"):
        for header in public_headers(library):
            first = (ROOT / library / "include" / header).read_text().split("\n", 1)[0]
            if not re.fullmatch(r"#pragma once  // since \d+\.\d+", first):
                yield f'{header}: has to begin with "#pragma once  // since VERSION"'
            if group_of(header) is None:
                yield f"{header}: in no group of the reference; add it to docs/reference/groups.py"


def every_source_is_formatted():
    files = [str(path) for path in sources(*PRODUCTS, "iokit", "driver", "tests", "bench", "fuzz", "examples")]
    result = run("clang-format", "--dry-run", "-Werror", *files, cwd=ROOT)
    if result.returncode != 0:
        yield result.stderr[:4000]


def no_file_names_the_machine_it_was_written_on():
    tracked = run("git", "ls-files", cwd=ROOT).stdout.split()
    place = re.compile("/" + r"(?:work|root|tmp/wt)/\w")
    for name in tracked:
        path = ROOT / name
        if path.suffix in {".pcap", ".pcapng", ".png"} or not path.is_file():
            continue
        for match in place.finditer(path.read_text(errors="replace")):
            yield f"{name}: {match.group(0)}"


def listed(name):
    """The lines of a list in a file: reason and names."""
    for line in (ROOT / name).read_text().splitlines():
        if line and not line.startswith("#"):
            reason, _, names = line.rpartition(": ")
            yield reason, names.split()


def every_call_that_can_fail_is_in_the_table_of_calls(*archives):
    table = set(re.findall(r"^(?:CALL|VARIADIC)\((\w+)", (ROOT / "tests/support/Calls.def").read_text(), re.MULTILINE))
    harmless = {name for _, names in listed("tests/house/harmless_calls.txt") for name in names}
    asked, own = set(), set()
    for archive in archives:
        for line in run("nm", archive).stdout.splitlines():
            symbol = re.match(r"(?:[0-9a-f]+)? *([A-Za-z]) (\w+)$", line)
            if symbol is not None:
                (asked if symbol.group(1) in "Uw" else own).add(symbol.group(2))
    calls = {name for name in asked - own if not name.startswith(("_Z", "__asan", "__ubsan", "__tsan", "__gcov"))}
    for name in sorted(calls - table - harmless):
        yield f"{name}: is called, but neither in tests/support/Calls.def nor in tests/house/harmless_calls.txt"
    for name in sorted(table & harmless):
        yield f"{name}: is both in tests/support/Calls.def and in tests/house/harmless_calls.txt"


def public_part(header):
    """A header without the private parts of its classes."""
    lines, hidden = [], None
    for line in (ROOT / header).read_text().splitlines():
        indent = len(line) - len(line.lstrip())
        if re.match(r"\s*(private|protected):", line):
            hidden = indent
        elif re.match(r"\s*public:", line) or (hidden is not None and line.lstrip().startswith("}") and indent < hidden):
            hidden = None
        if hidden is None:
            lines.append(line)
    return "\n".join(lines)


def is_declared(name, texts, hidden=False):
    """Whether one of the texts declares a function, and the class that it is of, be that a hidden one or not."""
    *scopes, own = name.split("::")
    words = [re.compile(rf"(?<![\w~]){re.escape(own)}\s*\(")]
    if scopes and not scopes[-1].islower():
        kind = "" if hidden else "(?! KES_HIDDEN)"
        words.append(re.compile(rf"\b(?:class|struct)\b{kind}[^;]*?\b{scopes[-1]}\b"))
    return any(all(word.search(text) for word in words) for text in texts)


def every_public_operation_has_a_scenario(*archives):
    texts = [public_part(f"{library}/include/{header}") for library in ("kespal", "kesos", "pcaplib")
             for header in public_headers(library)]
    operations = set()
    for archive in archives:
        for line in run("nm", "-C", "--defined-only", "--extern-only", archive).stdout.splitlines():
            symbol = re.match(r"[0-9a-f]+ T ((?:kes::)?[\w:~]+)(?:\[abi:\w+\])?(?:\(|$)", line)
            if symbol is not None and not symbol.group(1).startswith("_") and is_declared(symbol.group(1), texts):
                operations.add(symbol.group(1))
    played = set()
    for path in (path for path in (ROOT / "tests/everyfailure").glob("*.cpp") if path.name != "EngineTest.cpp"):
        for names in re.findall(r"\.operations\s*=\s*\{([^}]*)\}", path.read_text()):
            played.update(re.findall(r'"([^"]+)"', names))
    needless = {name for _, names in listed("tests/everyfailure/needless.txt") for name in names}
    for name in sorted(operations - played - needless):
        yield f"{name}: no scenario in tests/everyfailure, nor a line in needless.txt that says why"
    for name in sorted(name for name in played | needless if not is_declared(name, texts, hidden=True)):
        yield f"{name}: is no public operation, but has a scenario or is in needless.txt"
    for name in sorted(needless & played):
        yield f"{name}: has a scenario; take it out of needless.txt"


# The shell of a Mac is bash 3.2, and its tools are BSD's.
MAC_SCRIPTS = ("scripts/test", "scripts/mac-report", "scripts/lib/common.sh", "scripts/lib/counts.sh",
               "tests/house/install_test", "src/scripts/kestrace-log")
NOT_ON_A_MAC = re.compile(r"\b(?:mapfile|readarray|coproc|nproc)\b|declare -A|local -n|\$\{\w+(?:\^|,|@)|&>>|\|&|wait -n|"
                          r"sed [^|\n]*\\[|?+]|grep -\w*P|readlink -f|date -d|stat -c|xargs -\w*r|sort -\w*V|sed -i ")


def scripts_that_a_mac_runs_need_only_its_shell_and_tools():
    for name in MAC_SCRIPTS:
        for number, line in enumerate((ROOT / name).read_text().splitlines(), 1):
            for match in NOT_ON_A_MAC.finditer(line.split(" # ")[0]):
                yield f"{name}:{number}: {match.group(0)}"


# Who has read enough goes, and a writer that has more to say then ends by SIGPIPE: a failure under pipefail, at times.
STANDS_ON_PIPES = re.compile(r"#!.*bash\n(?:.*\n)*?(?:set -.*pipefail|source .*common\.sh)")
LEAVES_A_PIPE = re.compile(r"(?<!\|)\|\s*(?:grep (?:-\w+ )*-\w*[qm]|head\b|sed [^|\n]*\bq\b).*")


def no_script_leaves_a_pipe_that_has_to_succeed():
    for name in run("git", "ls-files", cwd=ROOT).stdout.splitlines():
        path = ROOT / name
        text = path.read_text(errors="replace") if path.is_file() else ""
        if not name.endswith(".sh") and not STANDS_ON_PIPES.match(text):
            continue
        for match in LEAVES_A_PIPE.finditer(text):
            yield f"{name}:{text.count(chr(10), 0, match.start()) + 1}: {match.group(0)}"


def tests_of_a_mac():
    """The names of the tests that a build on a Mac has."""
    programs = (ROOT / "tests/macos/programs/CMakeLists.txt").read_text()
    files = [path for listed in re.findall(r"^kes_mac_tests\(([^)]*)\)", programs, re.MULTILINE)
             for path in re.findall(r"(?:\$\{tests\}|\.\.)/([\w/]+\.(?:cpp|mm))", listed)]
    places = [ROOT / "tests", ROOT / "tests/macos"]
    texts = [(place / name).read_text() for name in files for place in places if (place / name).is_file()]
    texts += [path.read_text() for path in (ROOT / "tests/macos/promises").glob("*.cpp")]
    for text in texts:
        yield from (".".join(names) for names in re.findall(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", text))
    yield from re.findall(r"add_test\(NAME (\S+)", (ROOT / "tests/macos/CMakeLists.txt").read_text())


def every_row_of_the_platforms_has_a_question_for_a_mac():
    sys.path.append(str(ROOT / "scripts/lib"))
    from mac_report import is_test, questions, rows_of_table
    asked, rows, tests = questions(), list(rows_of_table()), set(tests_of_a_mac())
    script = (ROOT / "scripts/mac-report").read_text()
    if len(rows) < 50 or len(tests) < 100:
        yield f"{len(rows)} rows and {len(tests)} tests are not all that there are"
    yield from (f"{row}: nobody asks a Mac about it; add it to tests/macos/questions.txt"
                for row in rows if not asked.get(row))
    yield from (f"{row}: docs/platforms.md has no such row" for row in asked if row not in rows)
    for question in sorted({question for row in asked.values() for question in row}):
        if is_test(question):
            if not fnmatch.filter(tests, question):
                yield f"{question}: no test of a Mac's is called so"
        elif f'"{question}"' not in script:
            yield f"{question}: scripts/mac-report does not ask that"


def main(rule, *arguments):
    complaints = list(globals()[rule](*arguments))
    print("\n".join(complaints))
    return 1 if complaints else 0


sys.exit(main(*sys.argv[1:]))
