#!/usr/bin/env python3
"""List the readers on the bus and exchange a frame with each."""

import sys

import gvusb

REQUEST = bytes.fromhex("02 00 07 FF 01")


def main() -> None:
    for entry in gvusb.scan():
        print(f"{entry.id:X} {entry.name}")
        with entry.open() as reader:
            print("  sent    ", REQUEST.hex(" ").upper())
            print("  received", reader.transceive(REQUEST, timeout=0.5).hex(" ").upper())


if __name__ == "__main__":
    try:
        main()
    except gvusb.Error as error:
        sys.exit(str(error))
