"""Reads what CTest wrote with --output-junit.

    junit.py counts FILE     passed, failed and skipped, three numbers on one line
    junit.py skips FILE      a line per skipped test, with its reason, and each that a test began with "not run: "
    junit.py failures FILE   what the failed tests printed
"""
import re
import sys
import xml.etree.ElementTree as xml

OUTCOME = {"run": "passed", "fail": "failed", "notrun": "skipped", "disabled": "skipped"}


def outcome(case):
    return OUTCOME.get(case.get("status"), "failed")


def printed(case):
    return case.findtext("system-out") or ""


def reason(case):
    """What the test said when it skipped: the line below Google Test's "Skipped" mark."""
    said = re.search(r"Skipped\n+(.+)", printed(case))
    return said.group(1).strip() if said else "no reason given"


def main(what, path):
    cases = xml.parse(path).getroot().findall("testcase")
    if what == "counts":
        print(*(sum(outcome(case) == each for case in cases) for each in ("passed", "failed", "skipped")))
    elif what == "skips":
        for case in cases:
            if outcome(case) == "skipped":
                print(f"{case.get('name')}: {reason(case)}")
            for part in re.findall(r"^not run: (.+)$", printed(case), re.MULTILINE):
                print(part)
    elif what == "failures":
        for case in cases:
            if outcome(case) == "failed":
                print(f"FAILED: {case.get('name')}\n{printed(case)}")


if __name__ == "__main__":
    main(*sys.argv[1:])
