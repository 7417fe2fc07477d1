#!/usr/bin/env python3
"""A virtual reader that reports tags as they come, without being asked.

    gvusb-emulate --reader 'id=CAFE,logic=python3 tag_reader.py 200 E2003411 E2003412' -- ./receive_frames CAFE 5

The arguments are the time between two tags in milliseconds and the tags, which come in turn while a program has claimed
the reader. Each is reported in a frame of its own, on the bulk IN endpoint.
"""

import sys
import threading
from itertools import cycle
from typing import Any

import gvusb_logic


class TagReader(gvusb_logic.Reader):
    def __init__(self, seconds: float, tags: list[bytes]) -> None:
        super().__init__()
        self.seconds = seconds
        self.tags = tags
        self.stop = threading.Event()

    def event(self, name: str, details: dict[str, Any]) -> None:
        if name == "claimed":
            self.stop = threading.Event()
            threading.Thread(target=self.report, args=[self.stop], daemon=True).start()
        elif name in ("released", "closed", "reset", "unplugged"):
            self.stop.set()

    def report(self, stop: threading.Event) -> None:
        for tag in cycle(self.tags):
            if stop.wait(self.seconds):
                return
            self.send(tag)


if __name__ == "__main__":
    TagReader(int(sys.argv[1]) / 1000, [bytes.fromhex(tag) for tag in sys.argv[2:]]).run()
