"""Runs a program as a reader would, at a terminal of its own, and gives what was to be seen there."""
import os
import pty
import select
import signal
import subprocess
import time


class Run:
    """A command that ran to its end: `output` with both streams as they came, and how it ended."""

    def __init__(self, command, directory, environment, keys=None, limit=60):
        screen, terminal = pty.openpty()
        keyboard = subprocess.PIPE if keys else subprocess.DEVNULL
        self.output, self.is_late = "", False
        self._keys = keys  # (text to wait for, keys to press then)
        try:
            process = subprocess.Popen(command, cwd=directory, env=environment, stdin=keyboard, stdout=terminal,
                                       stderr=terminal, start_new_session=True)
            os.close(terminal)
            self._watch(process, screen, time.monotonic() + limit)
        finally:
            os.close(screen)
        self.status = process.returncode

    def ending(self):
        if self.is_late:
            return "does not end"
        return f"ends by {signal.Signals(-self.status).name}" if self.status < 0 else f"ends with {self.status}"

    def _watch(self, process, screen, end):
        while process.poll() is None:
            if time.monotonic() > end:
                self.is_late = True
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()
                break
            self._read(screen, 0.02)
            self._press(process)
        while self._read(screen, 0):
            pass
        if process.stdin:
            process.stdin.close()
        # What was started in the background and forgotten.
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass

    def _read(self, screen, seconds):
        if not select.select([screen], [], [], seconds)[0]:
            return False
        try:
            data = os.read(screen, 65536)
        except OSError:  # nobody has the terminal any more
            time.sleep(seconds)
            return False
        self.output += data.decode(errors="replace")
        return bool(data)

    def _press(self, process):
        if self._keys and self._keys[0] in self.output:
            process.stdin.write(self._keys[1].encode())
            process.stdin.flush()
            self._keys = None
