"""What the tests of the documents read of Markdown: code blocks with the comments above them, links, headings and
words in code."""
import dataclasses
import re

COMMENT = re.compile(r"\s*<!-- (.*) -->\s*$")
FENCE = re.compile(r"(\s*)(```+)\s*(\S*)\s*$")


@dataclasses.dataclass
class Block:
    line: int  # of its first line of text, counted from 1
    language: str
    text: str
    notes: list  # what the comments above it say


class Document:
    """One file, taken apart. What is wrong with its form is in `complaints`."""

    def __init__(self, text):
        self.blocks, self.complaints, self.prose = [], [], []
        lines = text.splitlines()
        number, notes, in_list = 0, [], False
        while number < len(lines):
            line = lines[number]
            if fence := FENCE.match(line):
                end = self._end_of_block(lines, number, fence)
                if not fence[3]:
                    self.complaints.append(f"line {number + 1}: a block that does not say what language it is in")
                body = (text.removeprefix(fence[1]) for text in lines[number + 1:end])
                self.blocks.append(Block(number + 2, fence[3], "".join(part + "\n" for part in body), notes))
                notes = []
                self.prose += [""] * (end + 1 - number)
                number = end + 1
                continue
            if comment := COMMENT.match(line):
                notes.append(comment[1])
            else:
                notes = []
                in_list = bool(re.match(r" *(?:[-*]|\d+\.) ", line)) or in_list and (not line or line[0] == " ")
                if re.match(r"(?: {4,}|\t)\S", line) and not in_list and not (number and lines[number - 1].strip()):
                    self.complaints.append(f"line {number + 1}: code by indentation is not tested; fence it")
            self.prose.append(line)
            number += 1
        self.text = text

    def _end_of_block(self, lines, start, fence):
        for number in range(start + 1, len(lines)):
            if lines[number].strip() == fence[2]:
                return number
        self.complaints.append(f"line {start + 1}: the block does not end")
        return len(lines)

    def _prose_without_code(self):
        return re.sub(r"`[^`]*`", lambda code: " " * len(code[0]), "\n".join(self.prose))

    def links(self):
        """(line, target, title) of every link and picture."""
        text = self._prose_without_code()
        # The text of a link may be code, so it is looked for with code blanked.
        for link in re.finditer(r"\]\(\s*<?([^)\s>]+)>?(?:\s+\"([^\"]*)\")?\s*\)", text):
            yield text.count("\n", 0, link.start()) + 1, link[1], link[2] or ""
        for link in re.finditer(r"<(?:img|a|source)\b[^>]*?(?:src|href|srcset)=\"([^\"]+)\"", text):
            yield text.count("\n", 0, link.start()) + 1, link[1], ""

    def code_words(self):
        """(line, text) of everything in code within the prose."""
        text = "\n".join(self.prose)
        for code in re.finditer(r"`([^`]+)`", text):
            yield text.count("\n", 0, code.start()) + 1, " ".join(code[1].split())

    def anchors(self):
        """The names that links can lead to within this document."""
        seen = {}
        for line in self.prose:
            if heading := re.match(r"#+ +(.*?)\s*#*$", line):
                words = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading[1])
                name = re.sub(r"[^\w\- ]", "", words.lower()).replace(" ", "-")
                count = seen[name] = seen.get(name, -1) + 1
                yield f"{name}-{count}" if count else name
