"""gvusb --broker, for the tests of a fleet."""

import json
import os
import subprocess
import types

from harness import PATIENCE, wait_until

PROGRAM = os.environ["GVUSB_TEST_TOOL"]


def command_line(broker, arguments, options=(), scheme="mqtt", host="127.0.0.1"):
    return [PROGRAM, "--broker", f"{scheme}://{host}:{broker.port}", *options, *arguments]


def run(broker, *arguments, stdin="", **connection):
    """Run a command. Return its status, output and errors."""
    ended = subprocess.run(command_line(broker, arguments, **connection), input=stdin, capture_output=True, text=True,
                           timeout=PATIENCE, check=False)
    return types.SimpleNamespace(status=ended.returncode, output=ended.stdout, errors=ended.stderr)


class Running:
    """A command that runs beside the test."""

    def __init__(self, test, broker, *arguments, **connection):
        self.process = subprocess.Popen(command_line(broker, arguments, **connection), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        test.callback(self._end)

    def _end(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.communicate()

    def line(self):
        """The next line of output, "" at the end."""
        return self.process.stdout.readline().rstrip("\n")

    def event(self):
        return json.loads(self.line())

    def error_line(self):
        return self.process.stderr.readline().rstrip("\n")

    def result(self):
        """Wait for the end. Return the status, and the output and errors that have not been read."""
        output, errors = self.process.communicate(timeout=PATIENCE)
        return types.SimpleNamespace(status=self.process.returncode, output=output, errors=errors)


def wait_listed(client, *readers, machine="gate"):
    """Wait until the broker has the documents of these readers, so that the tool finds them."""
    for reader in readers:
        wait_until(lambda reader=reader: (client.document(machine, reader) or {}).get("connected"), reader)
