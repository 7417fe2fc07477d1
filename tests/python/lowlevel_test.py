"""Tests of gvusb.lowlevel."""

from __future__ import annotations

import os
import re
import threading
import unittest
from typing import Callable, Dict, List, Tuple, Union

import gvusb
from gvusb import lowlevel
from support import FRAME, LONG_ENOUGH, BusTest, bus, forget


def constants_of_header() -> Dict[str, Union[str, int]]:
    with open(os.environ["GVUSB_HEADER"], encoding="ascii") as file:
        header = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.DOTALL)
    constants: Dict[str, Union[str, int]] = dict(re.findall(r'^#define (GVUSB_\w+) "(.*)"$', header, re.MULTILINE))
    for body in re.findall(r"\benum\b[^{;]*\{([^}]*)\}", header):
        for enumerator in body.split(","):
            name, value = enumerator.split("=")
            constants[name.strip()] = int(value, 0)
    return constants


class LowLevelTest(BusTest):
    def setUp(self) -> None:
        handle = lowlevel.GVUSB_GetDeviceList(0)
        while handle:
            lowlevel.GVUSB_CloseDevice(handle)
            handle = lowlevel.GVUSB_GetDeviceList(0)
        lowlevel.GVUSB_Scan(lowlevel.GVUSB_SCAN_ALL)

    def test_has_every_function_of_the_header(self) -> None:
        with open(os.environ["GVUSB_HEADER"], encoding="ascii") as header:
            declared = set(re.findall(r"^\S.*\b(GVUSB_\w+)\(", header.read(), re.MULTILINE))
        self.assertEqual(len(declared), 21)
        self.assertEqual(declared - set(dir(lowlevel)), set())

    def test_constants_are_those_of_the_header(self) -> None:
        constants = {name: value for name, value in vars(lowlevel).items()
                     if name.startswith("GVUSB_") and isinstance(value, (int, str))}
        self.assertEqual(constants, constants_of_header())

    def test_lists_readers(self) -> None:
        self.assertEqual(lowlevel.GVUSB_GetScanListSize(), 2)
        names = {lowlevel.GVUSB_GetScanListPara(index, "DEVICENAME") for index in range(2)}
        self.assertEqual(names, {"Desk reader", "Gate reader"})

    def test_scan_list_ends_with_an_index_error(self) -> None:
        with self.assertRaises(IndexError):
            lowlevel.GVUSB_GetScanListPara(2, "DEVICE-ID")

    def test_cleared_scan_list_is_empty(self) -> None:
        lowlevel.GVUSB_ClearScanList()
        self.assertEqual(lowlevel.GVUSB_GetScanListSize(), 0)

    def test_searches_by_name(self) -> None:
        search = lowlevel.GVUSB_SCANSEARCH(lowlevel.GVUSB_SEARCH_DEVICE_NAME, b"", b"Gate reader", b"")
        lowlevel.GVUSB_Scan(lowlevel.GVUSB_SCAN_ALL | lowlevel.GVUSB_SCAN_SEARCH, search)
        self.assertEqual(lowlevel.GVUSB_GetScanListSize(), 1)
        self.assertEqual(lowlevel.GVUSB_GetScanListPara(0, "DEVICE-ID"), "4D5E6F")

    def test_exchanges_frames(self) -> None:
        for device_id in (0x1A2B3C, 0x4D5E6F):
            handle = lowlevel.GVUSB_OpenDevice(device_id)
            self.assertEqual(lowlevel.GVUSB_Transceive(handle, FRAME), FRAME)
            lowlevel.GVUSB_Transmit(handle, b"\x00\x01")
            self.assertEqual(lowlevel.GVUSB_Receive(handle), b"\x00\x01")

    def test_finds_handles(self) -> None:
        handle = lowlevel.GVUSB_OpenDevice(0x1A2B3C)
        self.assertEqual(lowlevel.GVUSB_GetDeviceHnd(0x1A2B3C), handle)
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(0), handle)
        self.assertEqual(lowlevel.GVUSB_GetDeviceList(handle), 0)
        self.assertTrue(lowlevel.GVUSB_IsDevicePresent(handle))

    def test_reads_and_changes_parameters(self) -> None:
        handle = lowlevel.GVUSB_OpenDevice(0x1A2B3C)
        lowlevel.GVUSB_SetDevicePara(handle, "timeout", 250)
        self.assertEqual(lowlevel.GVUSB_GetDevicePara(handle, "TIMEOUT"), "250")
        self.assertEqual(lowlevel.GVUSB_GetDevicePara(handle, "TYPENUMBER"), "D-100")
        self.assertEqual(lowlevel.GVUSB_GetDevicePara(lowlevel.GVUSB_DRIVER, "HOTPLUG-MODE"), "1")

    def test_a_failure_is_an_exception_with_code_and_text(self) -> None:
        with self.assertRaises(gvusb.Error) as failure:
            lowlevel.GVUSB_OpenDevice(0xDECAF)
        self.assertEqual(failure.exception.code, lowlevel.GVUSB_ERR_NOT_SCANNED)
        self.assertEqual(str(failure.exception), "GVUSB: (-1140) device not scanned")

    def test_a_time_out_has_its_code(self) -> None:
        handle = lowlevel.GVUSB_OpenDevice(0x1A2B3C)
        lowlevel.GVUSB_SetDevicePara(handle, "TIMEOUT", 50)
        with self.assertRaises(gvusb.Error) as failure:
            lowlevel.GVUSB_Receive(handle)
        self.assertEqual(failure.exception.code, lowlevel.GVUSB_ERR_TIMEOUT)
        self.assertEqual(lowlevel.GVUSB_GetLastError(handle), (-1130, "GVUSB: (-1130) timeout"))

    def test_returns_versions(self) -> None:
        self.assertEqual(lowlevel.GVUSB_GetDLLVersion(), "07.01.00")
        with self.assertRaises(gvusb.Error):
            lowlevel.GVUSB_GetDrvVersion()

    def test_calls_event_handlers(self) -> None:
        connected = threading.Event()
        device_ids: List[Tuple[int, int, bytes]] = []

        def on_connect(handle: int, device_id: int, text: bytes) -> None:
            device_ids.append((handle, device_id, text))
            connected.set()

        registration = lowlevel.GVUSB_EVENT_INIT.of(lowlevel.GVUSB_EVENT_CONNECT, on_connect)
        lowlevel.GVUSB_AddEventHandler(0, registration)
        lowlevel.GVUSB_SetDevicePara(lowlevel.GVUSB_DRIVER, "HOTPLUG-SUSPEND", 0)
        number = bus("plug id=77")
        self.assertTrue(connected.wait(LONG_ENOUGH))
        lowlevel.GVUSB_DelEventHandler(0, registration)
        self.assertEqual(device_ids, [(0, 0x77, b"")])
        forget(number)

    def test_numbers_that_do_not_fit_are_refused(self) -> None:
        uses: List[Callable[[], object]] = [
            lambda: lowlevel.GVUSB_CloseDevice(1 << 32), lambda: lowlevel.GVUSB_OpenDevice(-1),
            lambda: lowlevel.GVUSB_GetScanListPara(-(1 << 31) - 1, "DEVICE-ID")]
        for use in uses:
            with self.assertRaises(OverflowError):
                use()

    def test_texts_with_a_zero_are_refused(self) -> None:
        with self.assertRaises(ValueError):
            lowlevel.GVUSB_GetDevicePara(lowlevel.GVUSB_DRIVER, "HOTPLUG-MODE\0")


if __name__ == "__main__":
    unittest.main()
