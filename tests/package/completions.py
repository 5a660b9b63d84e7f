"""Holds the completions against the usage texts: completions.py BASH|ZSH|FISH PROGRAM EXECUTABLE

Each shell is asked what it would offer for a word that begins with "-"; it has to be the options of the usage, all
of them and no other. zsh answers on a terminal only; what it is told is read from its file."""
import pathlib
import re
import shutil
import subprocess
import sys

FOLDER = pathlib.Path(__file__).resolve().parents[2] / "packaging/completions"


def run(*command):
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    if result.stderr:
        sys.exit(f"{' '.join(command)}:\n{result.stderr}")
    return result.stdout


def usage(program, executable):
    """The options that the program names when it is called wrongly."""
    said = subprocess.run([executable, "--nonsense"], capture_output=True, text=True, check=False)
    text = said.stdout + said.stderr
    return set(re.findall(r"(?<![\w-])--?[a-z]+\b", text[text.index("usage: "):])) - {"--nonsense"}


def bash(program, executable):
    script = f"""source {FOLDER}/bash/{program}
COMP_WORDS=({program} -) COMP_CWORD=1
_{program}
printf '%s\\n' "${{COMPREPLY[@]}}" """
    return set(run("bash", "--norc", "-uc", script).split())


def fish(program, executable):
    script = f"source {FOLDER}/fish/{program}.fish; complete -C '{program} -'; complete -C '{program} --'"
    return {line.split("\t")[0] for line in run("fish", "--no-config", "-c", script).splitlines() if line}


def zsh(program, executable):
    file = FOLDER / f"zsh/_{program}"
    run("zsh", "-f", "-n", str(file))
    return set(re.findall(r"'(?:\([^)]*\)|\*)?(--?[a-z]+)\[", file.read_text()))


def main(shell, program, executable):
    if shutil.which(shell) is None:
        print(f"Skipped\n{shell} is not installed")
        return 0
    offered, known = globals()[shell](program, executable), usage(program, executable)
    if program == "kesdriver":
        known.add("--help")
    if shell == "fish":
        offered -= {"-h", "--help"} - known
    for option in sorted(known - offered):
        print(f"{shell} does not offer {option}")
    for option in sorted(offered - known):
        print(f"{shell} offers {option}, which the usage does not name")
    return 0 if offered == known and known else 1


sys.exit(main(*sys.argv[1:]))
