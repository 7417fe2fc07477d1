#!/usr/bin/env python3
"""Watch readers that come and go, and exchange a frame with each that comes. Ctrl-C ends it."""

import gvusb

REQUEST = bytes.fromhex("02 00 07 FF 01")


def main() -> None:
    with gvusb.Monitor() as monitor:
        for entry in gvusb.scan():
            print(f"present {entry.id:X} {entry.name}", flush=True)
        for event in monitor:
            print(event, flush=True)
            # Without a scan, another change of the same reader would not be reported.
            gvusb.scan()
            if event.kind is gvusb.EventKind.CONNECT:
                try:
                    with gvusb.open(event.id) as reader:
                        print(f"  {reader.name} answers {len(reader.transceive(REQUEST))} bytes", flush=True)
                except gvusb.Error as error:
                    print(f"  {error}", flush=True)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
