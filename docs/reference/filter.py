"""A public header with its comments in the words of Doxygen, line by line as it was.

Comments of the headers are plain text. What Doxygen would take for markup is taken as it stands, but for `code` and
@return. The text in front of a header's declarations is that of the file. Each declaration outside of a class gets
its group, from groups.py, and the version of "#pragma once  // since VERSION". Of overloads that follow each other,
the first one's comment speaks for all. What the compiler writes needs none."""
import re

from groups import group_of

# Markup of Doxygen and of Markdown that a text may hold by chance.
MARKUP = re.compile(r"\\|@(?!return\b)|<|>|#|%|&|--")
# A declaration of a function up to its name; not one that a macro or a comment makes.
FUNCTION = re.compile(r"\s*(?!return\b|static_assert\b|#|/|\*)(?:[\w:<>,&*\[\] ~()]*?[\s&*])??"
                      r"((?:operator\s*[^\s(\w]+|~?\w+))\((?!\*)")
# A function that the compiler writes.
COMPILERS = re.compile(r"=\s*default;")


def literal(text):
    """Text that Doxygen shows as it is; what stands in backticks is code already."""
    parts = text.split("`")
    parts[::2] = [MARKUP.sub(lambda match: "\\" + match.group(), part) for part in parts[::2]]
    return "`".join(parts)


class Filter:
    def __init__(self, header, lines):
        group = group_of(header)
        # A header that is a group by itself tells all about it at its beginning.
        self.head = f"@house_head{{{group}}} " if group.startswith("kesos") else "@house_file "
        since = re.match(r"#pragma once  // since (\S+)$", lines[0])
        self.lines = lines
        self.tag = f" @house{{{group},{since.group(1) if since else ''}}}"
        self.speaking = None  # the indentation of a comment that speaks for the next declaration
        self.documented = None  # the function that the last comment speaks for, with its indentation
        self.in_comment = False  # of the kind that begins with /**
        self.is_outer = False  # whether that is in front of a declaration outside of a class

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
            indent, _, text = line.partition("///")
            self.speaking, self.documented = indent, None
            ends = not self.next_line(number).lstrip().startswith("///")
            return indent + "///" + literal(text) + (self.tag if ends and not indent else "")
        return self.declaration(line)

    def next_line(self, number):
        return self.lines[number + 1] if number + 1 < len(self.lines) else ""

    def block(self, line):
        if not self.in_comment:
            self.speaking, self.documented = line[:len(line) - len(line.lstrip())], None
            self.is_outer = line.startswith("/**")
        begin, _, text = line.partition("/**") if not self.in_comment else ("", "", line)
        text, end, rest = text.partition("*/")
        self.in_comment = not end
        is_table = re.match(r" \* {4,}", text) is not None  # is shown as it is
        text = text if is_table else literal(text)
        if end and self.is_outer:
            text += ("\n" if is_table else "") + self.tag
        return begin + ("/**" if line.lstrip().startswith("/**") else "") + text + end + rest

    def declaration(self, line):
        code, mark, note = line.partition("///<")
        if not mark:
            code, mark, note = line.partition("/**<")
        if mark:
            note, end, rest = note.partition("*/")
            tag = self.tag if not line.startswith(" ") else ""
            return code + mark + literal(note) + tag + end + rest
        indent = line[:len(line) - len(line.lstrip())]
        function = FUNCTION.match(line)
        if not line.strip():
            self.documented = None
        elif function is not None and self.speaking is None and COMPILERS.search(line):
            return "/** As the compiler makes it. */" + line
        elif function is not None and self.documented == (indent, function[1]):
            return "/** The same for another kind of argument. */" + line
        elif function is not None and self.speaking == indent:
            self.speaking, self.documented = None, (indent, function[1])
        elif function is not None and self.documented is not None and self.documented[0] == indent:
            self.documented = None
        elif self.speaking == indent and not re.match(r"\s*(template|requires|\[\[|//|#|__attribute__)", line):
            self.speaking = None
        return line
