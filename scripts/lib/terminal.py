#!/usr/bin/env python3
"""Runs a program on a terminal and sends it Q: terminal.py PROGRAM [ARGUMENT...]

Shows what it wrote; fails when it does not end, or leaves the terminal with other settings than it found."""
import os
import pty
import subprocess
import sys
import termios

PATIENCE = 60


def main(*command):
    keyboard, terminal = pty.openpty()
    before = termios.tcgetattr(terminal)
    process = subprocess.Popen(command, stdin=terminal, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    os.write(keyboard, b"Q")
    try:
        text, _ = process.communicate(timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        print("it does not end")
        return 1
    after = termios.tcgetattr(terminal)
    print(text.decode(errors="replace"), f"settings before {before[:4]}, after {after[:4]}", sep="")
    return 0 if after == before else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
