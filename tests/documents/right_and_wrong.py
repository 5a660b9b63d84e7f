"""Tries the tests of the documents on documents that are right, and on some that are wrong each in one way."""
import importlib.machinery
import importlib.util
import json
import os
import pathlib
import sys
import tempfile
import unittest

import words
from blocks import Blocks
from markdown import Document
from quoted import differences

configuration = json.loads(pathlib.Path(sys.argv[1]).read_text())

HELLO = """```cpp
#include <iostream>
int main() { std::cout << "hello\\nworld\\n"; }
```
"""


def checked(text):
    blocks = Blocks(configuration, "page.md", Document(text))
    blocks.check()
    return blocks


def complaint(text):
    return "\n".join(checked(text).complaints)


class BlocksTest(unittest.TestCase):
    def test_a_right_page(self):
        page = checked(HELLO + "\n<!-- output -->\n```text\nhello\n...\n```\n\n```sh\ntest -d samples; true\n```\n"
                       "<!-- not run: needs a Mac -->\n```sh\nsw_vers\n```\n")
        self.assertEqual(page.complaints, [])
        self.assertEqual((page.compiled, page.ran, page.quoted, len(page.left_out)), (1, 2, 1, 1))

    def test_a_program_that_does_not_compile(self):
        self.assertIn("does not compile", complaint("```cpp\nint main() { return x; }\n```\n"))

    def test_a_warning(self):
        self.assertIn("unused", complaint("```cpp\nint main() { int x = 1; }\n```\n"))

    def test_a_program_that_should_not_compile_and_does(self):
        self.assertIn("it compiles", complaint("<!-- does not compile -->\n" + HELLO))

    def test_a_program_that_fails(self):
        self.assertIn("ends with 3", complaint("```c\nint main(void) { return 3; }\n```\n"))
        self.assertEqual("", complaint("<!-- ends with 3 -->\n```c\nint main(void) { return 3; }\n```\n"))

    def test_a_program_that_a_signal_ends(self):
        text = "```c\n#include <stdlib.h>\nint main(void) { abort(); }\n```\n"
        self.assertIn("ends by SIGABRT", complaint(text))
        self.assertEqual("", complaint("<!-- ends by SIGABRT -->\n" + text))

    def test_another_output(self):
        self.assertIn("+world", complaint(HELLO + "<!-- output -->\n```text\nhello\n```\n"))

    def test_an_output_of_nothing(self):
        self.assertIn("nothing before it", complaint("<!-- output -->\n```text\nhello\n```\n"))

    def test_only_the_output_for_who_runs_it_counts(self):
        mine, other = ("as root", "as another user") if os.geteuid() == 0 else ("as another user", "as root")
        self.assertEqual("", complaint(HELLO + f"<!-- output {other} -->\n```text\nwrong\n```\n"))
        self.assertIn("wrong", complaint(HELLO + f"<!-- output {mine} -->\n```text\nwrong\n```\n"))

    def test_a_shell_that_fails(self):
        self.assertIn("ends with 1", complaint("```sh\nfalse\ntrue\n```\n"))

    def test_a_shell_block_that_is_not_run_is_read_all_the_same(self):
        self.assertIn("does not understand", complaint("<!-- not run: a reason -->\n```sh\nif\n```\n"))

    def test_keys_are_pressed_when_their_time_has_come(self):
        text = "```sh\necho now; read -r -n 1 key; echo got $key\n```\n<!-- output -->\n```text\nnow\ngot Q\n```\n"
        self.assertEqual("", complaint("<!-- keys Q at: now -->\n" + text))

    def test_a_block_without_a_language(self):
        self.assertIn("what language", complaint("```\nhello\n```\n"))

    def test_an_unknown_language(self):
        self.assertIn("nobody tests", complaint("```fortran\nEND\n```\n"))

    def test_code_by_indentation(self):
        self.assertIn("fence it", complaint("Text.\n\n    make\n"))

    def test_a_block_without_an_end(self):
        self.assertIn("does not end", complaint("```sh\ntrue\n"))

    def test_a_misspelt_comment(self):
        self.assertIn("means nothing", complaint("<!-- dont run -->\n" + HELLO))

    def test_a_text_that_is_neither_output_nor_drawing(self):
        self.assertIn("a drawing?", complaint("```text\nhello\n```\n"))


class QuotedTest(unittest.TestCase):
    def test_dots_stand_for_what_they_should(self):
        self.assertEqual("", differences("pid ...\nend\n", "pid 17\nend\n"))
        self.assertEqual("", differences("a\n...\nend\n", "a\nb\nc\nend\n"))
        self.assertNotEqual("", differences("pid ...\nend\n", "pid 17\nmore\nend\n"))
        self.assertNotEqual("", differences("a.c\n", "abc\n"))

    def test_colours_do_not_count(self):
        self.assertEqual("", differences("red\n", "\x1b[31mred\x1b[0m\r\n"))


class PicturesTest(unittest.TestCase):
    def test_a_picture_is_read_as_it_was_drawn_and_another_line_is_noticed(self):
        picture = load("scripts/picture")
        for file in picture.PICTURES.values():
            lines = picture.told(file)
            self.assertIn(("command", "kestrace -dump vpn_%s.pcap"), lines)
            self.assertIn(("text", "quit tracing with 'Q'"), lines)
        self.assertEqual([], list(picture.difference(lines)))
        others = [line for line in lines if "'Q'" not in line[1]]
        self.assertIn("-text: quit tracing with 'Q'", list(picture.difference(others)))


class WordsTest(unittest.TestCase):
    def complaints(self, check, text, others=None):
        with tempfile.TemporaryDirectory() as folder:
            root = pathlib.Path(folder)
            real = pathlib.Path(configuration["sources"])
            for entry in real.iterdir():
                if entry.suffix != ".md" and entry.name not in ("build", ".git", "docs", "samples"):
                    (root / entry.name).symlink_to(entry)
            (root / "page.md").write_text(text)
            (root / "other.md").write_text("# A heading, twice\n\n# A heading, twice\n")
            tree = words.Tree({**configuration, "sources": folder, "documents": []})
            tree.documents = {"page.md": tree.documents["page.md"]}
            return "\n".join(getattr(words, check)(tree))

    def assert_right(self, check, text):
        self.assertEqual("", self.complaints(check, text))

    def assert_wrong(self, check, text, complaint):
        self.assertIn(complaint, self.complaints(check, text))

    def test_links(self):
        self.assert_right("links", "[a](other.md) [b](other.md#a-heading-twice-1) [c](https://example.org/x)")
        self.assert_wrong("links", "[a](missing.md)", "leads nowhere")
        self.assert_wrong("links", "[a\nb](missing.md)", "leads nowhere")
        self.assert_wrong("links", "[`a`](missing.md)", "leads nowhere")
        self.assert_wrong("links", '<img src="missing.svg">', "leads nowhere")
        self.assert_wrong("links", "[a](other.md#b)", "no such heading")
        self.assert_wrong("links", "[a](http:/x)", "no address")

    def test_links_to_tests(self):
        self.assert_right("links", f'[yes](tests/kespal/fs/PathTest.cpp "{some_test()}")')
        self.assert_wrong("links", '[yes](tests/kespal/fs/PathTest.cpp "PathTest.IsNone")', "has no test")

    def test_names(self):
        self.assert_right("names", "`kes::proc::Child::wait()`, `KES_BACKTRACE`, `scripts/demo`, `tests/house/*.py`")
        self.assert_wrong("names", "`Child::waitt()`", "nobody knows waitt")
        self.assert_wrong("names", "`KES_BACKTRAC`", "nobody knows KES_BACKTRAC")
        self.assert_wrong("names", "`scripts/demoo`", "no such file")

    def test_options(self):
        self.assert_right("options", "`kestrace -trace -d 3` `kesdriver --once`")
        self.assert_wrong("options", "`kestrace -tracee`", "no option -tracee")
        self.assert_wrong("options", "```sh\nbuild/release/bin/kesdriver --onse &\n```\n", "no option --onse")

    def test_citations(self):
        self.assert_right("citations", "`pcap/pcap.h: pcap_dump`, `no/such/header.h: any_name`, `key: value`")
        self.assert_wrong("citations", "`pcap/pcap.h: pcap_dumq`", "has no pcap_dumq")
        tree = words.Tree(configuration)
        tree.documents["docs/comparison.md"].prose.append("| what | yes | `none` |")
        self.assertIn("a yes without its test", "\n".join(words.citations(tree)))

    def test_figures(self):
        tree = words.Tree(configuration)
        self.assertEqual([], list(words.figures(tree)))
        bench = tree.documents["bench/README.md"]
        bench.text = bench.text.replace("1.21, 1.15", "1.00, 1.00")
        self.assertIn("1.21, 1.15", "\n".join(words.figures(tree)))

    def test_every_document_with_code_is_tested(self):
        self.assert_wrong("listed", HELLO, "no test of its blocks")
        self.assert_right("listed", "no code")


def load(program):
    loader = importlib.machinery.SourceFileLoader("program", str(pathlib.Path(configuration["sources"]) / program))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("program", loader))
    loader.exec_module(module)
    return module


def some_test():
    text = (pathlib.Path(configuration["sources"]) / "tests/kespal/fs/PathTest.cpp").read_text()
    return ".".join(words.re.search(r"TEST(?:_F|_P)?\((\w+), (\w+)\)", text).groups())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
