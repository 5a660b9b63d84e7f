"""Holds the manual page and the completions of a program against what it says itself:
manual.py ROOT PROGRAM COMMAND. Every option of the usage text is in the page and in the completions of every
shell, and no other; every message of the page is in the sources; the page is clean."""
import pathlib
import re
import shutil
import subprocess
import sys

root, program, command = pathlib.Path(sys.argv[1]), sys.argv[2], sys.argv[3]
page_file = root / f"docs/man/{program}.1"
page = page_file.read_text()
completions = root / "packaging/completions"
shells = {"bash": f"bash/{program}", "zsh": f"zsh/_{program}", "fish": f"fish/{program}.fish"}


def usage_options():
    usage = subprocess.run([command, "--help"], capture_output=True, text=True, check=True).stdout
    return set(re.findall(r"(?<![\w-])(--?[a-z][a-z-]*)", usage))


def page_options():
    """Those that the page explains: each has an item, or shares one."""
    for item in re.findall(r"^\.It (Fl .*)$", page, re.MULTILINE):
        for long, short in re.findall(r"Fl Fl ([a-z-]+)|Fl ([a-z])\b", item):
            yield "--" + long if long else "-" + short


def completion_options(shell):
    text = (completions / shells[shell]).read_text()
    if shell == "fish":
        options = re.findall(r" -(?:l ([a-z-]+)|s ([a-z]))(?= )", text)
        return {"--" + long if long else "-" + short for long, short in options}
    if shell == "zsh":
        return set(re.findall(r"^  '(?:\([^)]*\))?(--?[a-z][a-z-]*)\[", text, re.MULTILINE))
    words = re.search(r'compgen -W "(--?[a-z][^"]*)" -- "\$word"\)\n\} &&', text)
    return set(words[1].split()) if words else set()


def complaints_about_options():
    usage = usage_options()
    if len(usage) < 5:
        yield "the usage text has no options where this test looks for them"
    for place, options in [("page", set(page_options()))] + [(shell, completion_options(shell)) for shell in shells]:
        # The analyser alone asks whether a filter would do: the page says so, and a person is not offered it.
        options.discard("--extcap-capture-filter")
        yield from (f"{place}: {option} is missing" for option in sorted(usage - options))
        yield from (f"{place}: {option} is unknown to the program" for option in sorted(options - usage))


def complaints_about_messages():
    sources = "".join(path.read_text() for path in sorted((root / "src").glob("*/*.cpp")))
    sources = re.sub(r'"\s*"', "", sources)
    for message in re.findall(r'^\.It "(.+)"$', page, re.MULTILINE):
        for part in re.split(r"%s|; ", message):
            part = part.strip(" ()")
            if len(part) > 3 and part not in sources:
                yield f"no source says: {part}"


def complaints_of_bash():
    """What bash would do with the file, done."""
    script = (f"source {completions / shells['bash']}; COMP_WORDS=({program} --) COMP_CWORD=1; "
              f"$(complete -p {program} | sed 's/.*-F \\([^ ]*\\) .*/\\1/'); echo \"${{COMPREPLY[@]}}\"")
    reply = subprocess.run(["bash", "-c", script], capture_output=True, text=True)
    offered = set(reply.stdout.split())
    wanted = {option for option in usage_options() if option.startswith("--")}
    if offered != wanted:
        yield f"bash offers {sorted(offered)}, and not {sorted(wanted)} {reply.stderr}"


def complaints_of_the_linter():
    if not shutil.which("mandoc"):
        print("mandoc is not installed: the page is not linted")
        return
    report = subprocess.run(["mandoc", "-Tlint", page_file], capture_output=True, text=True).stdout
    # Whether the pages referred to are installed on this machine says nothing of this one.
    yield from (line for line in report.splitlines()
                if "referenced manual not found" not in line and "outdated mandoc.db" not in line)


failures = [*complaints_about_options(), *complaints_about_messages(), *complaints_of_bash(), *complaints_of_the_linter()]
print("\n".join(failures))
sys.exit(bool(failures))
