#!/usr/bin/env python3
"""List the readers on the bus and exchange a frame with each."""

import sys

import gvusb

REQUEST = bytes.fromhex("02 00 07 FF 01")


def main():
    gvusb.GVUSB_Scan(gvusb.GVUSB_SCAN_ALL)
    for index in range(gvusb.GVUSB_GetScanListSize()):
        device_id = gvusb.GVUSB_GetScanListPara(index, "DEVICE-ID")
        print(device_id, gvusb.GVUSB_GetScanListPara(index, "DEVICENAME"))
        handle = gvusb.GVUSB_OpenDevice(int(device_id, 16))
        try:
            print("  sent    ", REQUEST.hex(" ").upper())
            print("  received", gvusb.GVUSB_Transceive(handle, REQUEST).hex(" ").upper())
        finally:
            gvusb.GVUSB_CloseDevice(handle)


if __name__ == "__main__":
    try:
        main()
    except gvusb.GvusbError as error:
        sys.exit(str(error))
