#!/usr/bin/env python3
"""Attach the reader 1-1 of the USB/IP server at GVUSB_EMULATE_USBIP as a client's kernel would, exchange frames with it,
and print the answers.

usage: usbip_exchange.py HEX...
"""

import os
import socket
import struct
import sys


def main():
    host, port = os.environ["GVUSB_EMULATE_USBIP"].rsplit(":", 1)
    with socket.create_connection((host, int(port))) as connection:
        stream = connection.makefile("rwb")
        stream.write(struct.pack(">HHI32s", 0x0111, 0x8003, 0, b"1-1"))
        stream.flush()
        version, code, status = struct.unpack(">HHI", stream.read(8))
        assert (version, code, status) == (0x0111, 3, 0), (version, code, status)
        device = stream.read(312)
        bus, address = struct.unpack(">II", device[288:296])

        def transfer(sequence, inwards, endpoint, data, length):
            stream.write(struct.pack(">IIIIIIiiiI8s", 1, sequence, bus << 16 | address, inwards, endpoint, 0, length, 0,
                                     0, 0, bytes(8)) + data)
            stream.flush()
            reply = stream.read(48)
            command, answered, _, _, _, status, actual = struct.unpack(">IIIIIii", reply[:28])
            assert (command, answered, status) == (3, sequence, 0), (command, answered, status)
            return stream.read(actual) if inwards else b""

        for number, text in enumerate(sys.argv[1:]):
            frame = bytes.fromhex(text)
            transfer(2 * number + 1, 0, 2, frame, len(frame))
            print(transfer(2 * number + 2, 1, 1, b"", 64).hex())


main()
