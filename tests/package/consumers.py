"""Who uses an installation, each a test: consumers.py CONSUMER PREFIX

PREFIX is where the libraries were installed; nothing else of this project is known to a consumer, but for the one
that takes in the sources. CC, CXX and CXXFLAGS are heeded as CMake does."""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
PROJECTS = HERE / "consumers"


class Failure(Exception):
    pass


def run(*command, fails=False, **options):
    """What a command printed; it has to succeed, or to fail."""
    result = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            check=False, **options)
    if (result.returncode != 0) != fails:
        raise Failure(f"{' '.join(map(str, command))}\nended with {result.returncode}:\n{result.stdout}")
    return result.stdout


def expect(what, text):
    if not what:
        raise Failure(text)


class Place:
    """A prefix, and a folder to work in."""

    def __init__(self, prefix, scratch):
        self.prefix, self.scratch = pathlib.Path(prefix).resolve(), pathlib.Path(scratch)
        found = sorted(self.prefix.rglob("libkespal.a"))
        expect(found, f"nothing is installed in {prefix}")
        self.libraries = found[0].parent
        self.has_shared = (self.libraries / "libkespal.so").exists()

    def configure(self, project, *options, **how):
        return run("cmake", "-S", PROJECTS / project, "-B", self.scratch / project, "-G", "Ninja",
                   f"-DCMAKE_PREFIX_PATH={self.prefix}", *options, **how)

    def build(self, project, *options):
        self.configure(project, *options)
        run("cmake", "--build", self.scratch / project)
        return self.scratch / project

    def pkg_config(self, *words):
        environment = dict(os.environ, PKG_CONFIG_PATH=str(self.libraries / "pkgconfig"))
        return run("pkg-config", *words, env=environment).split()


def libraries_of(program):
    """Which of ours a program loads."""
    return {name for name in re.findall(r"\(NEEDED\).*\[(\S+)\]", run("readelf", "-d", program))
            if name.startswith(("libkes", "libpcaplib"))}


def the_libraries_are_hardened(place):
    names = ("libkespal", "libkesos", "libpcaplib")
    for path in [place.libraries / f"{name}.so.0" for name in names] + [place.prefix / "bin/kestrace"]:
        segments, dynamic = run("readelf", "-lW", path), run("readelf", "-dW", path)
        expect(re.search(r"GNU_STACK .* RW  ", segments), f"{path.name}: its stack is executable")
        expect("GNU_RELRO" in segments, f"{path.name}: no RELRO")
        expect("(TEXTREL)" not in dynamic and "TEXTREL" not in dynamic, f"{path.name}: relocations in its text")
        if path.name == "kestrace":
            continue
        expect("BIND_NOW" in dynamic or "NOW" in dynamic, f"{path.name}: RELRO is not full")
        expect("NODELETE" in dynamic, f"{path.name}: could be unloaded under its threads")
        expect(f"soname: [{path.name}]" in dynamic, f"{path.name}: has another name")
        paths = re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", dynamic)
        expect(paths in ([], ["$ORIGIN"]), f"{path.name}: looks for libraries in {paths}")
        undefined = run("ldd", "-r", path, env=dict(os.environ, LD_LIBRARY_PATH=str(place.libraries)))
        expect("undefined symbol" not in undefined and "not found" not in undefined, undefined)


def programs_of_cmake_link_either_kind(place):
    build = place.build("report")
    shared, static = run(build / "report_shared"), run(build / "report_static")
    expect(libraries_of(build / "report_shared") == {"libkespal.so.0", "libpcaplib.so.0"}, "not linked with the shared")
    expect(not libraries_of(build / "report_static"), "linked with the shared libraries instead of the archives")
    expect("report:" in shared and "raiseHere" in shared, f"a site has another name:\n{shared}")
    expect(shared == static, f"sites or first frames differ:\n{shared}\n{static}")


def frames_have_names_unless_a_program_says_no(place):
    build = place.build("report")
    expect("\n  raiseHere()\n" in run(build / "report_shared"), "the program's own frame has no name")
    expect("\n  raiseHere()\n" not in run(build / "report_nameless"), "it said no, and its symbols are exported")


def programs_of_pkg_config_link_either_kind(place):
    for compiler in filter(shutil.which, ("gcc", "clang")):
        for kind in ("", "-static"):
            program = place.scratch / f"flat{kind}-{compiler}"
            run(compiler, "-std=c11", PROJECTS / "flat/flat.c", "-o", program, f"-Wl,-rpath,{place.libraries}",
                *place.pkg_config("--cflags", "--libs", "kesos" + kind))
            run(program, place.scratch / "mapped")
            expect(libraries_of(program) == (set() if kind else {"libkesos.so.0"}), f"{program.name}: another kind")
    for compiler in filter(shutil.which, ("g++", "clang++")):
        for kind in ("", "-static"):
            program = place.scratch / f"report{kind}-{compiler}"
            run(compiler, "-std=c++20", PROJECTS / "report/report.cpp", "-o", program, f"-Wl,-rpath,{place.libraries}",
                *place.pkg_config("--cflags", "--libs", "pcaplib" + kind, "kespal" + kind))
            run(program)


def pkg_config_knows_what_a_static_program_needs(place):
    program = place.scratch / "flat"
    run("gcc", "-static", "-Wno-deprecated", PROJECTS / "flat/flat.c", "-o", program,
        *place.pkg_config("--static", "--cflags", "--libs", "kesos"))
    run(program, place.scratch / "mapped")
    expect(place.pkg_config("--modversion", "kespal") == run(program, place.scratch / "mapped").split()[1:],
           "two versions")


def a_project_in_c_alone_links_the_flat_layer(place):
    build = place.build("flat")
    for name in ("flat", "flat_static"):
        run(build / name, place.scratch / "mapped")


def what_is_not_there_is_said(place):
    def asking(wanted):
        return place.configure("wanting", f"-DWANTED={wanted}", "--fresh", fails=True)

    expect('no component "nonsense"' in asking("REQUIRED;COMPONENTS;kespal;nonsense"), "a component")
    expect("answers to requests for 0.1 only" in asking("9.9;REQUIRED"), "another version")
    expect("older than 0.1.99" in asking("0.1.99;REQUIRED"), "a newer version")
    for wanted in ("REQUIRED", "0.1;REQUIRED;COMPONENTS;kespal;kesos;pcaplib;static", "0.1...0.2;REQUIRED",
                   "REQUIRED;OPTIONAL_COMPONENTS;nonsense"):
        place.configure("wanting", f"-DWANTED={wanted}", "--fresh")


def a_plugin_is_unloaded_while_threads_of_the_libraries_run(place):
    build = place.build("plugin")
    for name in ("plugin", "plugin_static"):
        run(build / "host", build / f"{name}.so", timeout=120)


def python_calls_the_flat_layer(place):
    run(sys.executable, PROJECTS / "flat.py", place.libraries / "libkesos.so.0", place.scratch / "mapped")


def a_parent_project_takes_in_the_sources(place):
    build = place.build("parent", f"-DSOURCE={ROOT}", "-DCMAKE_BUILD_TYPE=Release")
    run(build / "programs/parent")


def the_examples_build_as_they_are_installed(place):
    found = sorted(place.prefix.rglob("examples/supervisor.cpp"))
    expect(found, "no examples are installed")
    build = place.scratch / "examples"
    run("cmake", "-S", found[0].parent, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={place.prefix}")
    run("cmake", "--build", build)
    # Packages that are only unpacked do not lie where their libraries look for each other.
    environment = dict(os.environ, LD_LIBRARY_PATH=str(place.libraries))
    for name in ("errors", "kesos"):
        run(build / name, env=environment)


def headers_of(place, *folders):
    include = next(place.prefix.rglob("include/kespal/kespal.h")).parents[1]
    for folder in folders:
        for header in sorted((include / folder).rglob("*.h")):
            name = header.relative_to(include).as_posix()
            if "/os/darwin/" not in name and "/os/posix/" not in name or sys.platform == "darwin":
                yield include, name


def compile_headers(place, compiler, ending, *options, folders):
    unit = place.scratch / f"headers.{ending}"
    headers = list(headers_of(place, *folders))
    unit.write_text("".join(f'#include "{name}"\n' for _, name in headers))
    run(compiler, "-fsyntax-only", "-Werror", f"-I{headers[0][0]}", *options, unit)


LIBRARIES = ("kes", "kespal", "kesos", "pcaplib")
# What -Weverything says of any C++20 or of any class with virtual functions, and nothing of these headers.
NOT_MEANT = ("c++98-compat", "c++98-compat-pedantic", "pre-c++20-compat-pedantic", "c++20-compat", "padded", "weak-vtables",
             "pre-c++17-compat", "exit-time-destructors", "global-constructors", "unused-macros",
             "gnu-zero-variadic-macro-arguments", "pragma-once-outside-header", "thread-safety-negative")


def the_headers_are_clean_under_every_warning(place):
    quiet = [f"-Wno-{name}" for name in NOT_MEANT] + ["-Wno-unknown-warning-option"]
    compile_headers(place, "clang++", "cpp", "-std=c++20", "-Weverything", *quiet, folders=LIBRARIES)
    compile_headers(place, "clang", "c", "-std=c11", "-Weverything", *quiet, folders=("kes", "kesos"))
    compile_headers(place, "g++", "cpp", "-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion",
                    folders=LIBRARIES)


def the_headers_are_good_for_other_languages(place):
    for compiler in filter(shutil.which, ("g++", "clang++")):
        compile_headers(place, compiler, "cpp", "-std=c++2b", "-Wall", "-Wextra", folders=LIBRARIES)
        compile_headers(place, compiler, "cpp", "-std=c++98", "-fno-exceptions", "-fno-rtti", "-Wall", "-Wno-long-long",
                        folders=("kes", "kesos"))
    for compiler in filter(shutil.which, ("gcc", "clang")):
        for language in ("c11", "c17", "gnu2x"):
            compile_headers(place, compiler, "c", f"-std={language}", "-fno-exceptions", "-Wall", "-Wextra",
                            "-Wpedantic", folders=("kes", "kesos"))


def main(consumer, prefix):
    with tempfile.TemporaryDirectory() as scratch:
        try:
            globals()[consumer](Place(prefix, scratch))
        except Failure as failure:
            print(failure)
            return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
