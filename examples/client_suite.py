"""Tests of a client of the driver against the stand-in, as a start for your own: client_suite.py KESDRIVER CLIENT

CLIENT is a command that captures until it is told to end, such as 'kestrace -dump /dev/null'."""
import json, os, pathlib, signal, subprocess, sys, tempfile, time, unittest  # noqa: E401 - one page is the point

KESDRIVER, CLIENT = sys.argv.pop(1), sys.argv.pop(1)


class ClientTest(unittest.TestCase):
    def meet(self, script, calls):
        """Plays a script to the client until it has made so many calls: what it asked for, and its messages."""
        with tempfile.TemporaryDirectory() as folder:
            journal = pathlib.Path(folder, "journal")
            pathlib.Path(folder, "script").write_text(script)
            driver = subprocess.Popen([KESDRIVER, "--dir", folder, "--script", f"{folder}/script", "--journal",
                                       journal], stdout=subprocess.PIPE, text=True)
            while "serving" not in driver.stdout.readline():
                pass
            client = subprocess.Popen(CLIENT.split(), env=os.environ | {"KES_IOREGISTRY": folder}, text=True,
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            limit = time.monotonic() + 60
            while client.poll() is None and time.monotonic() < limit:
                lines = journal.read_text().split("\n")[:-1]
                requests = [line for line in map(json.loads, lines) if line["event"] == "request"]
                if len(requests) >= calls:
                    break
                time.sleep(0.01)
            client.send_signal(signal.SIGTERM)
            messages = client.communicate()[0]
            driver.send_signal(signal.SIGTERM)
            driver.communicate()
            return requests, messages

    def test_it_opens_takes_its_role_and_fetches(self):
        requests, _ = self.meet("", 4)
        self.assertEqual([r["call"] for r in requests][:4], ["service", "open", "packet", "packet"])
        self.assertEqual(requests[1]["scalars"], [2])
        self.assertEqual(requests[2]["structureCapacity"], 4096)

    def test_it_goes_on_after_a_refused_packet(self):
        requests, _ = self.meet("packet return kIOReturnNoSpace x3\n", 8)
        self.assertGreaterEqual(len(requests), 8)

    def test_it_says_that_the_driver_refuses_it(self):
        _, messages = self.meet("open return kIOReturnExclusiveAccess\n", 100)
        self.assertIn("0xe00002c5", messages)


unittest.main()
