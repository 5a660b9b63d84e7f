"""A public header with its comments in the words of Doxygen, line by line as it was.

Comments of the headers are plain text. What Doxygen would take for markup is taken as it stands, but for `code`,
@return and @since. The text in front of a header's declarations is that of the file. Each declaration outside of a
class gets its group, from groups.py, and the version of "#pragma once  // since VERSION". Of overloads that follow each
other, the first one's comment speaks for all. What the compiler writes needs none."""
import re

from groups import group_of

# Markup of Doxygen and of Markdown that a text may hold by chance.
MARKUP = re.compile(r"\\|@(?!(?:return|since)\b)|<|>|#|%|&|--")
# A declaration of a function up to its name; not one that a macro or a comment makes.
FUNCTION = re.compile(r"\s*(?!return\b|static_assert\b|#|/|\*)(?:[\w:<>,&*\[\] ~()]*?[\s&*])??"
                      r"((?:operator\s*[^\s(\w]+|~?\w+))\((?!\*)")
# A function that the compiler writes.
COMPILERS = re.compile(r"=\s*default;")
# What a declaration may have in front of the line with the name.
BEFORE_NAME = re.compile(r"\s*(?:template|requires|\[\[|//|#|__attribute__)")


def indentation(line):
    return line[:len(line) - len(line.lstrip())]


def literal(text):
    """Text that Doxygen shows as it is; what stands in backticks is code already."""
    parts = text.split("`")
    parts[::2] = [MARKUP.sub(lambda match: "\\" + match.group(), part) for part in parts[::2]]
    return "`".join(parts)


class Filter:
    def __init__(self, header, lines):
        group = group_of(header)
        # The headers of the flat layer tell all about their groups at their beginning.
        tells = group.startswith("kesos_") or header == "kesos/kesos.h"
        self.head = f"@house_head{{{group}}} " if tells else "@house_file "
        since = re.match(r"#pragma once  // since (\S+)$", lines[0])
        self.lines = lines
        self.group, self.since = group, since[1] if since else ""
        self.speaking = None  # the indentation of a comment that speaks for the next declaration
        self.documented = None  # the function that the last comment speaks for, with its indentation
        self.in_comment = False  # of the kind that begins with /**
        self.has_age = False  # whether the comment says itself since when it is there

    def run(self):
        code = self.beginning()
        for number in range(code, len(self.lines)):
            self.lines[number] = self.line(number)
        return self.lines

    def beginning(self):
        """Makes the first comment, if it is in front of all declarations, that of the file; gives the line behind."""
        if self.head.startswith("@house_head"):
            self.lines[1] += "/** @file */"
        for number, line in enumerate(self.lines[2:], 2):
            if line.startswith(("/* ", "// ")):
                self.lines[number] = ("/** " if line.startswith("/*") else "/// ") + self.head + literal(line[3:])
                return self.rest_of_comment(number)
            if line.startswith(("/**", "///", "namespace")):
                break
        self.lines[1] = "/** @file */"
        return 2

    def rest_of_comment(self, number):
        """Does the same to the other lines of a comment, up to the line behind it."""
        is_block = self.lines[number].startswith("/*")
        while "*/" not in self.lines[number] if is_block else self.lines[number + 1].startswith("//"):
            number += 1
            self.lines[number] = ("" if is_block else "/") + literal(self.lines[number])
        return number + 1

    def line(self, number):
        line = self.lines[number]
        if self.in_comment or line.lstrip().startswith("/**"):
            return self.block(line)
        if line.lstrip().startswith("///"):
            return self.line_comment(line, not self.is_comment(number - 1), not self.is_comment(number + 1))
        if "///<" in line or "/**<" in line:
            return self.note(line)
        return self.announcement(line) + line

    def is_comment(self, number):
        return self.lines[number].lstrip().startswith("///")

    def begin_comment(self, line):
        self.speaking, self.documented, self.has_age = indentation(line), None, False

    def tag(self):
        """What goes to the end of a comment in front of a declaration outside of a class."""
        return f" @house_group{{{self.group}}}" if self.has_age else f" @house{{{self.group},{self.since}}}"

    def line_comment(self, line, is_first, is_last):
        if is_first:
            self.begin_comment(line)
        indent, _, text = line.partition("///")
        self.has_age = self.has_age or "@since" in text
        return indent + "///" + literal(text) + (self.tag() if is_last and not indent else "")

    def block(self, line):
        begin = ""
        if not self.in_comment:
            self.begin_comment(line)
            begin, _, line = line.partition("/**")
            begin += "/**"
        text, end, rest = line.partition("*/")
        self.in_comment = not end
        self.has_age = self.has_age or "@since" in text
        is_table = re.match(r" \* {4,}", text) is not None  # is shown as it is
        text = text if is_table else literal(text)
        if end and self.speaking == "":
            text += ("\n" if is_table else "") + self.tag()
        return begin + text + end + rest

    def note(self, line):
        """A comment behind a declaration."""
        self.speaking, self.has_age = None, "@since" in line
        code, mark, text = re.split(r"(///<|/\*\*<)", line, maxsplit=1)
        text, end, rest = text.partition("*/")
        return code + mark + literal(text) + ("" if line.startswith(" ") else self.tag()) + end + rest

    def announcement(self, line):
        """A comment for a declaration that needs none of its own."""
        indent, function = indentation(line), FUNCTION.match(line)
        name = (indent, function[1]) if function else None
        if not line.strip():
            self.documented = None
        elif name and self.speaking is None and COMPILERS.search(line):
            return "/** As the compiler makes it. */"
        elif name and name == self.documented:
            return "/** The same for another kind of argument. */"
        elif name and self.speaking == indent:
            self.speaking, self.documented = None, name
        elif name and self.documented is not None and self.documented[0] == indent:
            self.documented = None
        elif self.speaking == indent and not BEFORE_NAME.match(line):
            self.speaking = None
        return ""
