#!/usr/bin/env python3
"""A virtual reader with a checksum and counters.

    gvusb-emulate --reader 'id=CAFE,logic=python3 checked_reader.py' -- gvusb send CAFE 10 F0

The bytes of each frame add up to a multiple of 256; the last one is the checksum. A frame begins with a command, its
answer with a status: 00 for success, 01 for an unknown command, 02 for a wrong checksum.

    10            answer with the counters, two bytes each: frames with a right and with a wrong checksum
    11 BYTE...    answer with these bytes
"""

import gvusb_logic

DONE, UNKNOWN, DAMAGED = 0x00, 0x01, 0x02
COUNTERS, ECHO = 0x10, 0x11


def with_checksum(data: bytes) -> bytes:
    return data + bytes([-sum(data) % 256])


class CheckedReader(gvusb_logic.Reader):
    def __init__(self) -> None:
        super().__init__()
        self.right = 0
        self.wrong = 0

    def frame(self, data: bytes) -> bytes:
        if len(data) < 2 or sum(data) % 256 != 0:
            self.wrong += 1
            return with_checksum(bytes([DAMAGED]))
        self.right += 1
        command, arguments = data[0], data[1:-1]
        if command == COUNTERS:
            counters = self.right.to_bytes(2, "big") + self.wrong.to_bytes(2, "big")
            return with_checksum(bytes([DONE]) + counters)
        if command == ECHO:
            return with_checksum(bytes([DONE]) + arguments)
        return with_checksum(bytes([UNKNOWN]))


if __name__ == "__main__":
    CheckedReader().run()
