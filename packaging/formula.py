#!/usr/bin/env python3
"""Writes the formula for a release to standard output: formula.py VERSION HOMEPAGE URL ARCHIVE

ARCHIVE is the source archive that URL gives; its checksum goes into the formula."""
import hashlib
import pathlib
import sys


def formula(version, homepage, url, archive):
    text = pathlib.Path(__file__).with_name("kestrace.rb.in").read_text()
    values = {"VERSION": version, "HOMEPAGE": homepage, "URL": url,
              "SHA256": hashlib.sha256(pathlib.Path(archive).read_bytes()).hexdigest()}
    for name, value in values.items():
        text = text.replace(f"@{name}@", value)
    return text


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    sys.stdout.write(formula(*sys.argv[1:]))
