#!/usr/bin/env python3
"""What scripts/mac-report does with text: mac_report.py COMMAND

    rows TESTS ANSWERS     the answer of each row of docs/platforms.md, from the results of ctest (its --output-junit)
                           and the script's own answers
    without-names ROOT     copies standard input, with what would tell who ran it, and where, replaced
    read REPORT            what a report that was sent says of each row, and its line for the table in docs/platforms.md
"""
import fnmatch
import getpass
import os
import pathlib
import pwd
import re
import socket
import subprocess
import sys
import xml.etree.ElementTree as xml

import junit

# A Mac's own Python is 3.8.
ROOT = pathlib.Path(__file__).resolve().parents[2]
TABLE = ROOT / "docs/platforms.md"
QUESTIONS = ROOT / "tests/macos/questions.txt"

EXPECTED, DIFFERENT, UNTRIED = "as expected", "DIFFERENT", "not tried"


def rows_of_table():
    """The names of the rows: the first cells of the lines that say what is on macOS."""
    for line in TABLE.read_text().split("\n## ")[0].splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        if line.startswith("| ") and len(cells) == 4 and cells[0] and not cells[0].startswith("**"):
            yield cells[0]


def questions():
    """Row -> its questions."""
    found, row = {}, None
    for line in QUESTIONS.read_text().splitlines():
        if line.startswith("  "):
            found[row].append(line.strip())
        elif line and not line.startswith("#"):
            row = line
            found[row] = []
    return found


def is_test(question):
    return re.fullmatch(r"\w+\.[\w*]+", question) is not None


# --- on the Mac

def results_of_tests(path):
    """Test -> (verdict, why)."""
    if not path.is_file():
        return {}
    return {case.get("name"): result_of(case) for case in xml.parse(path).iter("testcase")}


def result_of(case):
    outcome = junit.outcome(case)
    if outcome == "skipped":
        return UNTRIED, junit.reason(case)
    return (EXPECTED, "") if outcome == "passed" else (DIFFERENT, f"{case.get('name')} fails")


def read_answers(text):
    """Question -> (verdict, what or why), of the lines that the script writes."""
    found = {}
    for verdict, name, _, rest in re.findall(rf"^({EXPECTED}|{DIFFERENT}|{UNTRIED}): ([^:\n]*)(: (.*))?$", text, re.MULTILINE):
        found[name] = verdict, rest or (f"not so: {name}" if verdict == DIFFERENT else "")
    return found


def answers_to(question, tests, answers):
    if not is_test(question):
        return [answers.get(question, (UNTRIED, f"nobody came to ask: {question}"))]
    return [result for name, result in tests.items() if fnmatch.fnmatchcase(name, question)] or [
        (UNTRIED, f"no test ran that is called {question}")]


def answer_of_row(row_questions, tests, answers):
    """One that is different decides, and one that is missing leaves the row open."""
    found = [answer for question in row_questions for answer in answers_to(question, tests, answers)]
    for verdict in (DIFFERENT, UNTRIED):
        reasons = [why for one, why in found if one == verdict]
        if reasons:
            return verdict, "; ".join(dict.fromkeys(reasons))
    return EXPECTED, ""


def rows(tests, answers):
    results, said = results_of_tests(pathlib.Path(tests)), read_answers(pathlib.Path(answers).read_text())
    for row, row_questions in questions().items():
        verdict, why = answer_of_row(row_questions, results, said)
        print(f"{verdict}: {row}" + (f" | {why}" if why else ""))
    return 0


def output_of(*command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ""


def private_names():
    """Names that tell who and where -> what takes their place. Words of the report's own questions tell nothing."""
    user = pwd.getpwuid(os.getuid())
    invoker = os.environ.get("SUDO_USER", "")
    host = socket.gethostname()
    names = dict.fromkeys([host, host.split(".")[0], output_of("scutil", "--get", "ComputerName"),
                           output_of("scutil", "--get", "LocalHostName")], "<host>")
    names.update(dict.fromkeys([getpass.getuser(), user.pw_name, invoker], "<user>"))
    names.update(dict.fromkeys([user.pw_gecos.split(",")[0], output_of("id", "-F")], "<name>"))
    own = set(re.findall(r"\w+", (QUESTIONS.read_text() + (ROOT / "scripts/mac-report").read_text()).lower()))
    return {name: stead for name, stead in names.items() if name and name.lower() not in own | {"root", "localhost"}}


def private_folders(root):
    """Folders that tell the same -> what takes their place."""
    homes = [os.path.expanduser("~"), pwd.getpwuid(os.getuid()).pw_dir]
    if "SUDO_USER" in os.environ:
        homes.append(os.path.expanduser("~" + os.environ["SUDO_USER"]))
    folders = {os.path.realpath(root): "<sources>", root: "<sources>",
               os.environ.get("TMPDIR", "").rstrip("/"): "<temporary>", **dict.fromkeys(homes, "~")}
    return {folder: stead for folder, stead in folders.items() if len(folder) > 1}


def without_names(root):
    steads = private_folders(root)
    texts = [re.escape(folder) + r"(?![\w.-])" for folder in sorted(steads, key=len, reverse=True)]
    names = private_names()
    texts += [rf"(?<!\w){re.escape(name)}(?!\w)" for name in sorted(names, key=len, reverse=True)]
    # Of other users' folders, and of those that this system makes for a user, the place is enough.
    texts += [r"/(?:Users|home)/[\w.-]+", r"/(?:private/)?var/folders/\w+/\w+"]
    private = re.compile("|".join(texts), re.IGNORECASE)
    known = {name.lower(): stead for name, stead in {**steads, **names}.items()}
    for line in sys.stdin.buffer:
        text = line.decode(errors="replace")
        print(private.sub(lambda found: known.get(found[0].lower(), "~"), text), end="", flush=True)
    return 0


# --- where it is read

def facts(text):
    return dict(re.findall(r"^(date|model|processor|macOS|commit): (.*)$", text, re.MULTILINE))


def answers_of_rows(text):
    _, _, section = text.partition("\n== docs/platforms.md\n")
    return {row: (verdict, why) for verdict, row, _, why in
            re.findall(rf"^({EXPECTED}|{DIFFERENT}|{UNTRIED}): ([^|\n]*?)( \| (.*))?$", section, re.MULTILINE)}


def read(name):
    text = pathlib.Path(name).read_text(errors="replace")
    if not re.search(r"^mac-report: \d+ as expected, \d+ different, \d+ not tried$", text, re.MULTILINE):
        print(f"{name}: this is no report of scripts/mac-report, or not all of it", file=sys.stderr)
        return 2
    words = {EXPECTED: "settled", DIFFERENT: DIFFERENT, UNTRIED: "open"}
    counts, found = dict.fromkeys(words, 0), answers_of_rows(text)
    for row in rows_of_table():
        verdict, why = found.get(row, (UNTRIED, "the report does not know this row"))
        counts[verdict] += 1
        print(f"{words[verdict]}: {row}" + (f": {why}" if why else ""))
    said = facts(text)
    different = [f"{row}: {why}" for row, (verdict, why) in found.items() if verdict == DIFFERENT]
    print(f"\nFor the table in docs/platforms.md:\n| {said.get('date')} | {said.get('model')}, {said.get('processor')} "
          f"| {said.get('macOS')} | {said.get('commit')} | {counts[EXPECTED]} of {sum(counts.values())} "
          f"| {'; '.join(different) or 'none'} |")
    print(f"\nrows: {counts[EXPECTED]} settled, {counts[DIFFERENT]} different, {counts[UNTRIED]} open")
    return 0


def main(command, *arguments):
    return {"rows": rows, "without-names": without_names, "read": read}[command](*arguments)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
