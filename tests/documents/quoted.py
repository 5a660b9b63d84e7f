"""Holds what a document quotes against what a program printed. In a quotation ... stands for any text within a
line, and on a line of its own for any number of lines."""
import difflib
import re

ESCAPES = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")


def plain(output):
    """What a reader sees of it on a terminal without colours."""
    return ESCAPES.sub("", output).replace("\r\n", "\n").replace("\r", "\n")


def pattern_of(quotation):
    parts = []
    for line in quotation.splitlines():
        if line.strip() == "...":
            parts.append(r"(?:[^\n]*\n)*?")
        else:
            parts.append("[^\n]*?".join(re.escape(text) for text in line.rstrip().split("...")) + r"[ \t]*\n")
    return "".join(parts)


def differences(quotation, output):
    """The differences as text; empty if the output is as quoted. Empty lines at the end do not count."""
    output = plain(output).rstrip("\n") + "\n"
    if re.fullmatch(pattern_of(quotation), output):
        return ""
    return "\n".join(difflib.unified_diff(quotation.splitlines(), output.splitlines(), "quoted", "printed", lineterm=""))
