"""Shared by the tests of the Python package, which run on two virtual readers."""

from __future__ import annotations

import os
import subprocess
import sys
import textwrap
import unittest

import gvusb

FRAME = bytes.fromhex("02 00 07 FF 01")
BULK = 0x1A2B3C
CONTROL = 0x4D5E6F
# How late something may be on a busy machine, in seconds.
LONG_ENOUGH = 60.0


def bus(command: str) -> str:
    """Send a command to the virtual readers, and return the answer."""
    launcher = os.environ["GVUSB_LAUNCHER"]
    done = subprocess.run([launcher, "--send", command], check=True, stdout=subprocess.PIPE, text=True)
    return done.stdout.strip().removeprefix("ok").strip()


def forget(reader: str) -> None:
    """Unplug a reader, unless it is unplugged, and wait until the scan list does not contain it."""
    launcher = os.environ["GVUSB_LAUNCHER"]
    while len(gvusb.scan()) > 2:
        # A script that has ended may have left a command behind that plugs it in.
        subprocess.run([launcher, "--send", f"unplug {reader}"], check=False, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)


def start(script: str) -> subprocess.Popen[str]:
    """Start a script in an interpreter of its own, in development mode."""
    return subprocess.Popen([sys.executable, "-X", "dev", "-W", "ignore::ResourceWarning",
                             "-W", "ignore::DeprecationWarning", "-c", textwrap.dedent(script)],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


class BusTest(unittest.TestCase):
    """A test on the virtual readers. A command of `spoil` is undone after the test."""

    maxDiff = None

    def spoil(self, command: str, remedy: str) -> None:
        bus(command)
        self.addCleanup(bus, remedy)

    def mute(self, reader: int = 1) -> None:
        self.addCleanup(self.drain)
        self.spoil(f"mute {reader} in", f"unmute {reader} in")

    @staticmethod
    def drain() -> None:
        """Receive what muted readers have not sent."""
        for device_id in (BULK, CONTROL):
            with gvusb.open(device_id) as reader:
                try:
                    while reader.receive(timeout=0.02):
                        pass
                except gvusb.Error:
                    pass

    def check_script(self, script: str) -> str:
        """Run a script that must end well and without a message, and return its output."""
        with start(script) as process:
            try:
                output, errors = process.communicate(timeout=LONG_ENOUGH)
            finally:
                process.kill()
        self.assertEqual((process.returncode, errors), (0, ""), output)
        return output
