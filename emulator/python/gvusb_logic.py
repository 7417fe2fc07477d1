"""A virtual reader of gvusb-emulate as a Python class, for logic=COMMAND in its description.

    class Reader(gvusb_logic.Reader):
        def frame(self, data: bytes) -> bytes | None:
            return data[::-1]

    Reader().run()
"""

import json
import sys
import threading
from typing import Any, Union


class Reader:
    """Derive from it, and define the methods that you need: hello, frame, event. Other threads may send."""

    def __init__(self) -> None:
        self.facts: dict[str, Any] = {}  # what the first line says about the reader
        self._lock = threading.Lock()

    def hello(self) -> None:
        """The reader has got its facts."""

    def frame(self, data: bytes) -> Union[bytes, None]:
        """The program has sent a frame. Return the answer, or None."""

    def event(self, name: str, details: dict[str, Any]) -> None:
        """Something else has happened, such as "opened" or "unplugged"."""

    def send(self, data: bytes, **options: Any) -> None:
        """Send a frame; options: pipe="bulk" or "control", after_ms=MS."""
        self.do(send=data.hex(), **options)

    def do(self, **line: Any) -> None:
        """Write any line, such as do(stall="in"), do(unplug=True, after_ms=50) or do(log="text")."""
        text = json.dumps(line, separators=(",", ":")) + "\n"
        with self._lock:
            sys.stdout.write(text)
            sys.stdout.flush()

    def run(self) -> None:
        """Play the reader until the end of the run."""
        for text in sys.stdin:
            line = json.loads(text)
            if "frame" in line:
                answer = self.frame(bytes.fromhex(line["frame"]))
                if answer is not None:
                    self.send(answer, pipe=line["pipe"])
            elif "event" in line:
                self.event(line["event"], line)
            elif "hello" in line:
                self.facts = line
                self.hello()
