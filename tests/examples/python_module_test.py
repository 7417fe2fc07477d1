"""Tests of the Python module on two virtual readers: 1A2B3C with bulk endpoints and 4D5E6F without."""

import os
import re
import subprocess
import threading
import unittest

import gvusb

FRAME = bytes.fromhex("02 00 07 FF 01")


def constants_of_header():
    with open(os.environ["GVUSB_HEADER"], encoding="ascii") as file:
        header = re.sub(r"/\*.*?\*/", "", file.read(), flags=re.DOTALL)
    constants = dict(re.findall(r'^#define (GVUSB_\w+) "(.*)"$', header, re.MULTILINE))
    for body in re.findall(r"\benum\b[^{;]*\{([^}]*)\}", header):
        for enumerator in body.split(","):
            name, value = enumerator.split("=")
            constants[name.strip()] = int(value, 0)
    return constants


class PythonModuleTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        handle = gvusb.GVUSB_GetDeviceList(0)
        while handle:
            gvusb.GVUSB_CloseDevice(handle)
            handle = gvusb.GVUSB_GetDeviceList(0)
        gvusb.GVUSB_Scan(gvusb.GVUSB_SCAN_ALL)

    def test_has_every_function_of_the_header(self):
        with open(os.environ["GVUSB_HEADER"], encoding="ascii") as header:
            declared = set(re.findall(r"^\S.*\b(GVUSB_\w+)\(", header.read(), re.MULTILINE))
        self.assertEqual(len(declared), 21)
        self.assertEqual(declared - set(dir(gvusb)), set())

    def test_constants_are_those_of_the_header(self):
        constants = {name: value for name, value in vars(gvusb).items()
                     if name.startswith("GVUSB_") and isinstance(value, (int, str))}
        self.assertEqual(constants, constants_of_header())

    def test_lists_readers(self):
        self.assertEqual(gvusb.GVUSB_GetScanListSize(), 2)
        names = {gvusb.GVUSB_GetScanListPara(index, "DEVICENAME") for index in range(2)}
        self.assertEqual(names, {"Desk reader", "Gate reader"})

    def test_scan_list_ends_with_an_index_error(self):
        with self.assertRaises(IndexError):
            gvusb.GVUSB_GetScanListPara(2, "DEVICE-ID")

    def test_cleared_scan_list_is_empty(self):
        gvusb.GVUSB_ClearScanList()
        self.assertEqual(gvusb.GVUSB_GetScanListSize(), 0)

    def test_searches_by_name(self):
        search = gvusb.GVUSB_SCANSEARCH(gvusb.GVUSB_SEARCH_DEVICE_NAME, b"", b"Gate reader", b"")
        gvusb.GVUSB_Scan(gvusb.GVUSB_SCAN_ALL | gvusb.GVUSB_SCAN_SEARCH, search)
        self.assertEqual(gvusb.GVUSB_GetScanListSize(), 1)
        self.assertEqual(gvusb.GVUSB_GetScanListPara(0, "DEVICE-ID"), "4D5E6F")

    def test_exchanges_frames(self):
        for device_id in (0x1A2B3C, 0x4D5E6F):
            handle = gvusb.GVUSB_OpenDevice(device_id)
            self.assertEqual(gvusb.GVUSB_Transceive(handle, FRAME), FRAME)
            gvusb.GVUSB_Transmit(handle, b"\x00\x01")
            self.assertEqual(gvusb.GVUSB_Receive(handle), b"\x00\x01")

    def test_finds_handles(self):
        handle = gvusb.GVUSB_OpenDevice(0x1A2B3C)
        self.assertEqual(gvusb.GVUSB_GetDeviceHnd(0x1A2B3C), handle)
        self.assertEqual(gvusb.GVUSB_GetDeviceList(0), handle)
        self.assertEqual(gvusb.GVUSB_GetDeviceList(handle), 0)
        self.assertTrue(gvusb.GVUSB_IsDevicePresent(handle))

    def test_reads_and_changes_parameters(self):
        handle = gvusb.GVUSB_OpenDevice(0x1A2B3C)
        gvusb.GVUSB_SetDevicePara(handle, "timeout", 250)
        self.assertEqual(gvusb.GVUSB_GetDevicePara(handle, "TIMEOUT"), "250")
        self.assertEqual(gvusb.GVUSB_GetDevicePara(handle, "TYPENUMBER"), "D-100")
        self.assertEqual(gvusb.GVUSB_GetDevicePara(gvusb.GVUSB_DRIVER, "HOTPLUG-MODE"), "1")

    def test_a_failure_is_an_exception_with_code_and_text(self):
        with self.assertRaises(gvusb.GvusbError) as failure:
            gvusb.GVUSB_OpenDevice(0xDECAF)
        self.assertEqual(failure.exception.code, gvusb.GVUSB_ERR_NOT_SCANNED)
        self.assertEqual(str(failure.exception), "GVUSB: (-1140) device not scanned")

    def test_a_time_out_has_its_code(self):
        handle = gvusb.GVUSB_OpenDevice(0x1A2B3C)
        gvusb.GVUSB_SetDevicePara(handle, "TIMEOUT", 50)
        with self.assertRaises(gvusb.GvusbError) as failure:
            gvusb.GVUSB_Receive(handle)
        self.assertEqual(failure.exception.code, gvusb.GVUSB_ERR_TIMEOUT)
        self.assertEqual(gvusb.GVUSB_GetLastError(handle), (-1130, "GVUSB: (-1130) timeout"))

    def test_returns_versions(self):
        self.assertEqual(gvusb.GVUSB_GetDLLVersion(), "07.01.00")
        with self.assertRaises(gvusb.GvusbError):
            gvusb.GVUSB_GetDrvVersion()

    def test_calls_event_handlers(self):
        connected = threading.Event()
        device_ids = []

        def on_connect(handle, device_id, text):
            device_ids.append((handle, device_id, text))
            connected.set()

        registration = gvusb.GVUSB_EVENT_INIT.of(gvusb.GVUSB_EVENT_CONNECT, on_connect)
        gvusb.GVUSB_AddEventHandler(0, registration)
        gvusb.GVUSB_SetDevicePara(gvusb.GVUSB_DRIVER, "HOTPLUG-SUSPEND", 0)
        subprocess.run([os.environ["GVUSB_LAUNCHER"], "--send", "plug id=77"], check=True, stdout=subprocess.DEVNULL)
        self.assertTrue(connected.wait(20))
        gvusb.GVUSB_DelEventHandler(0, registration)
        self.assertEqual(device_ids, [(0, 0x77, b"")])
        subprocess.run([os.environ["GVUSB_LAUNCHER"], "--send", "unplug 3"], check=True)
