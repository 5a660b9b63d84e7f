"""filter.py FILE: a public header, with its comments in the words of Doxygen, line by line as it was.

Comments of the headers are plain text. What Doxygen would take for markup is taken as it stands, but for `code` and
@return. The text in front of a header's declarations is that of the file. Each declaration outside of a class gets
its group, from groups.py, and the version of "#pragma once  // since VERSION". Of overloads that follow each other,
the first one's comment speaks for all."""
import pathlib
import re
import sys

from groups import group_of

# Markup of Doxygen and of Markdown that a text may hold by chance.
MARKUP = re.compile(r"\\|@(?!return\b)|<|>|#|%|&|--")
# A declaration of a function up to its name; not one that a macro or a comment makes.
FUNCTION = re.compile(r"\s*(?!return\b|static_assert\b|#|/|\*)(?:[\w:<>,&*\[\] ~()]*?[\s&*])??"
                      r"((?:operator\s*[^\s(\w]+|~?\w+))\((?!\*)")


def literal(text):
    """Text that Doxygen shows as it is; what stands in backticks is code already."""
    parts = text.split("`")
    parts[::2] = [MARKUP.sub(lambda match: "\\" + match.group(), part) for part in parts[::2]]
    return "`".join(parts)


class Filter:
    def __init__(self, header, lines):
        since = re.match(r"#pragma once  // since (\S+)$", lines[0])
        self.lines = lines
        self.tag = f" @house{{{group_of(header)},{since.group(1) if since else ''}}}"
        self.documented = None  # the function that the last comment speaks for
        self.in_comment = False  # of the kind that begins with /**
        self.is_outer = False  # whether that is in front of a declaration outside of a class

    def run(self):
        code = self.beginning()
        for number in range(code, len(self.lines)):
            self.lines[number] = self.line(number)
        return self.lines

    def beginning(self):
        """Makes the first comment, if it is in front of all declarations, that of the file; gives the line behind."""
        for number, line in enumerate(self.lines):
            if line.startswith("/* "):
                self.lines[number] = "/** @house_file " + literal(line[3:])
                while "*/" not in self.lines[number]:
                    number += 1
                    self.lines[number] = literal(self.lines[number])
                return number + 1
            if line.startswith("// "):
                self.lines[number] = "/// @house_file " + literal(line[3:])
                while self.lines[number + 1].startswith("//"):
                    number += 1
                    self.lines[number] = "/" + literal(self.lines[number])
                return number + 1
            if line.startswith(("/**", "///", "namespace")):
                break
        self.lines[1] += "/** @file */"
        return 0

    def line(self, number):
        line = self.lines[number]
        if self.in_comment or line.lstrip().startswith("/**"):
            return self.block(line)
        if line.lstrip().startswith("///"):
            self.documented = None
            indent, _, text = line.partition("///")
            ends = not self.next_line(number).lstrip().startswith("///")
            return indent + "///" + literal(text) + (self.tag if ends and not indent else "")
        return self.declaration(line)

    def next_line(self, number):
        return self.lines[number + 1] if number + 1 < len(self.lines) else ""

    def block(self, line):
        if not self.in_comment:
            self.documented = None
            self.is_outer = line.startswith("/**")
        begin, _, text = line.partition("/**") if not self.in_comment else ("", "", line)
        text, end, rest = text.partition("*/")
        self.in_comment = not end
        is_table = re.match(r" \* {4,}", text) is not None  # is shown as it is
        text = text if is_table else literal(text)
        if end and self.is_outer:
            text += self.tag
        return begin + ("/**" if line.lstrip().startswith("/**") else "") + text + end + rest

    def declaration(self, line):
        code, mark, note = line.partition("///<")
        if not mark:
            code, mark, note = line.partition("/**<")
        if mark:
            note, end, rest = note.partition("*/")
            tag = self.tag if not line.startswith(" ") else ""
            return code + mark + literal(note) + tag + end + rest
        if not line.strip() or line.lstrip().startswith("//"):
            self.documented = None
            return line
        function = FUNCTION.match(line)
        if function is None:
            return line
        if function.group(1) == self.documented:
            return "/** @overload */" + line
        if self.documented is None:
            self.documented = function.group(1)
        return line


def main(name):
    path = pathlib.Path(name)
    text = path.read_text()
    if path.suffix == ".h":
        header = name.rpartition("include/")[2]
        text = "\n".join(Filter(header, text.split("\n")).run())
    sys.stdout.write(text)


if __name__ == "__main__":
    main(sys.argv[1])
